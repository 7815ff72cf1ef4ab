#include "util/zip_crc.h"

#include <zlib.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace dorvane::zip {

namespace {

// zlib takes at most 4 GiB - 1 bytes per call.
uint32_t ZlibCrc(uint32_t crc, const unsigned char* data, size_t size) {
  while (size > 0) {
    const uInt chunk = static_cast<uInt>(size < 0x40000000u ? size : 0x40000000u);
    crc = static_cast<uint32_t>(crc32(crc, data, chunk));
    data += chunk;
    size -= chunk;
  }
  return crc;
}

#if defined(__x86_64__)

// The message is folded 512 bits at a time by multiplying each 128-bit lane
// with x^(512+32) and x^(512-32) mod P (bit-reflected, as the format's CRC
// is), then the four lanes into one with the constants for 128 bits. The
// remaining 128 bits have the same CRC as the whole message (with a zero
// register), which zlib then gives, and zlib takes the tail.
constexpr long long kFold512Low = 0x154442bd4LL, kFold512High = 0x1c6e41596LL;
constexpr long long kFold128Low = 0x1751997d0LL, kFold128High = 0x0ccaa009eLL;
constexpr size_t kFoldFrom = 64;  // below this, zlib's own is as fast

__attribute__((target("pclmul,sse4.1"))) inline __m128i Fold(__m128i lane, __m128i constants,
                                                             __m128i next) {
  const __m128i low = _mm_clmulepi64_si128(lane, constants, 0x00);
  const __m128i high = _mm_clmulepi64_si128(lane, constants, 0x11);
  return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

__attribute__((target("pclmul,sse4.1"))) inline __m128i Load(const unsigned char* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

__attribute__((target("pclmul,sse4.1"))) uint32_t FoldedCrc(uint32_t crc, const unsigned char* p,
                                                            size_t n) {
  const __m128i by512 = _mm_set_epi64x(kFold512High, kFold512Low);
  const __m128i by128 = _mm_set_epi64x(kFold128High, kFold128Low);
  // The register, inverted as zlib keeps it, enters with the first bytes.
  __m128i x0 = _mm_xor_si128(Load(p), _mm_cvtsi32_si128(static_cast<int>(~crc)));
  __m128i x1 = Load(p + 16), x2 = Load(p + 32), x3 = Load(p + 48);
  p += 64;
  n -= 64;
  for (; n >= 64; p += 64, n -= 64) {
    x0 = Fold(x0, by512, Load(p));
    x1 = Fold(x1, by512, Load(p + 16));
    x2 = Fold(x2, by512, Load(p + 32));
    x3 = Fold(x3, by512, Load(p + 48));
  }
  x0 = Fold(x0, by128, x1);
  x0 = Fold(x0, by128, x2);
  x0 = Fold(x0, by128, x3);
  for (; n >= 16; p += 16, n -= 16) x0 = Fold(x0, by128, Load(p));
  alignas(16) unsigned char rest[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(rest), x0);
  // zlib's crc32(~0, R) is the CRC of R with a zero register, inverted: the
  // inverted register of the whole message so far.
  return ZlibCrc(ZlibCrc(0xFFFFFFFFu, rest, 16), p, n);
}

bool CanFold() {
  static const bool can = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return can;
}

#endif

}  // namespace

uint32_t Crc32Plain(uint32_t crc, const unsigned char* data, size_t size) {
  return ZlibCrc(crc, data, size);
}

bool Crc32Folded(uint32_t crc, const unsigned char* data, size_t size, uint32_t* result) {
#if defined(__x86_64__)
  if (!CanFold()) return false;
  *result = size >= kFoldFrom ? FoldedCrc(crc, data, size) : ZlibCrc(crc, data, size);
  return true;
#else
  (void)crc, (void)data, (void)size, (void)result;
  return false;
#endif
}

uint32_t Crc32(uint32_t crc, const unsigned char* data, size_t size) {
  uint32_t folded = 0;
  return Crc32Folded(crc, data, size, &folded) ? folded : ZlibCrc(crc, data, size);
}

}  // namespace dorvane::zip
