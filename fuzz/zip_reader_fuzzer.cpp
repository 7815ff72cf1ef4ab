// The whole reader over an archive in memory: the directory, every entry's
// record, and every entry unpacked into a sink that only counts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "util/zip_core.h"

namespace {

using namespace dorvane;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "zip_reader_fuzzer: %s\n", what);
  std::abort();
}

class CountingSink : public zip::Sink {
 public:
  ZipResult Write(const unsigned char* data, size_t size) override {
    if (size > 0 && data == nullptr) Fail("null data");
    written += size;
    return kZipOk;
  }
  uint64_t written = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zip::MemorySource source(data, size);
  zip::Directory directory;
  if (directory.Read(source, zip::kNativeNames) != kZipOk) return 0;
  if (directory.count() > size / 46) Fail("more entries than the bytes can hold");
  zip::Unpacker unpacker;
  uint64_t spans = 0;
  for (size_t i = 0; i < directory.count(); ++i) {
    zip::EntryInfo entry;
    if (directory.Entry(i, &entry) != kZipOk) Fail("a record read once does not read again");
    if (entry.name.size() > 259) Fail("name longer than 259 characters");
    if (entry.name.size() >= 2 && entry.name[1] == ':') Fail("name with a drive");
    if (!entry.name.empty() && (entry.name[0] == '/' || entry.name[0] == '\\')) Fail("rooted name");
    const uint64_t limit = directory.DataLimit(i);
    if (limit > size || entry.local_offset >= limit) Fail("data limit outside the archive");
    spans += limit - entry.local_offset;
    uint64_t at = 0;
    if (unpacker.Locate(source, entry, limit, &at) != kZipOk) continue;
    if (at > limit || entry.compressed_size > limit - at) Fail("data beyond its limit");
    if (entry.folder) continue;
    CountingSink sink;
    const ZipResult result = unpacker.Stream(source, entry, at, sink);
    if (sink.written > entry.size) Fail("more bytes than the declared size");
    if (result == kZipOk && sink.written != entry.size) Fail("success with a short entry");
  }
  // Entries never share bytes: together they take at most the archive.
  if (spans > size) Fail("entries overlap");
  return 0;
}
