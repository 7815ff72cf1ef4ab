// The zip reader's format work, free of any file system: end records, Zip64,
// central and local records, entry names, and streaming an entry's data
// through zlib with its CRC-32 and sizes checked. The Windows reader
// (zip_reader.h) puts files behind it; the fuzzing targets put memory behind it.
//
// Nothing here throws, and nothing allocates in proportion to what an archive
// claims before checking it against what the archive can hold:
// - the directory is walked through a window of fixed size, and only 32 bytes
//   per entry are held (for the entry count, its record's position and where
//   its data may end); archives of more than kMaxEntries entries are refused
//   with kZipNoMemory before anything is allocated for them;
// - an entry's data must lie wholly between its own local header and the next
//   entry's, and before the central directory: entries that share or overlap
//   data (the classic way to make a small archive unpack to terabytes) make
//   the whole archive corrupt;
// - an entry never gives more bytes than its declared size.
//
//   zip::MemorySource source(bytes, size);
//   zip::Directory directory;
//   if (directory.Read(source, zip::kNativeNames) == kZipOk) {
//     zip::Unpacker unpacker;
//     for (size_t i = 0; i < directory.count(); ++i) {
//       zip::EntryInfo entry;
//       if (directory.Entry(i, &entry) != kZipOk) continue;
//       uint64_t at = 0;
//       if (unpacker.Locate(source, entry, directory.DataLimit(i), &at) == kZipOk)
//         unpacker.Stream(source, entry, at, sink);
//     }
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace dorvane {

using ZipResult = std::uint32_t;

inline constexpr ZipResult kZipOk = 0x0;
inline constexpr ZipResult kZipRecent = 0x1;  // only for FormatZipMessage
inline constexpr ZipResult kZipNoDuplicate = 0x100;
inline constexpr ZipResult kZipNoFile = 0x200;        // archive or output file
inline constexpr ZipResult kZipNoMemory = 0x300;
inline constexpr ZipResult kZipWriteError = 0x400;
inline constexpr ZipResult kZipNotFound = 0x500;
inline constexpr ZipResult kZipMoreData = 0x600;
inline constexpr ZipResult kZipCorrupt = 0x700;
inline constexpr ZipResult kZipReadError = 0x800;
inline constexpr ZipResult kZipPassword = 0x1000;     // an encrypted entry
inline constexpr ZipResult kZipBadArguments = 0x10000;
inline constexpr ZipResult kZipNotMemoryZip = 0x20000;
inline constexpr ZipResult kZipMemorySize = 0x30000;
inline constexpr ZipResult kZipPreviousError = 0x40000;
inline constexpr ZipResult kZipEnded = 0x50000;
inline constexpr ZipResult kZipWrongSize = 0x60000;
inline constexpr ZipResult kZipPartlyUnzipped = 0x70000;
inline constexpr ZipResult kZipWrongMode = 0x80000;   // not a handle opened for reading
inline constexpr ZipResult kZipNotInitialised = 0x1000000;
inline constexpr ZipResult kZipUnseekable = 0x2000000;
inline constexpr ZipResult kZipNoChange = 0x4000000;
inline constexpr ZipResult kZipFlation = 0x5000000;

// The text of a result code; "unknown zip result code" for any other value.
const char* ZipResultText(ZipResult code);

// The name rules applied to every entry name, repeated until none applies:
// a leading drive prefix (any character, then ":") is dropped; a leading "\" or
// "/" is dropped; when the name contains "\..\", "\../", "/../" or "/..\",
// everything up to and including the earliest such sequence is dropped.
// So "..\..\x.txt" and "C:\x.txt" become "x.txt"; "d/../../x" becomes "../x".
// Names are handed out exactly so (deployed tools compare them); such a name
// is then refused at unpacking by CheckOutputPath.
std::string CleanEntryName(std::string name);

// kZipOk when a file or folder may be created at `path`; kZipNoFile when any
// segment of it (between "\" or "/") is "..", ends in a dot or a blank, holds
// a ":" (an alternate stream) or a character Windows does not allow in names,
// or is a device name (CON, PRN, AUX, NUL, COM0-9, LPT0-9, CONIN$, CONOUT$,
// also with an extension), or when the path is in the device namespace
// ("\\.\", "\\?\"). A drive ("C:") as the first segment, and "." segments,
// are allowed.
ZipResult CheckOutputPath(const char* path);

namespace zip {

// Where the reader takes the archive's bytes from.
class Source {
 public:
  virtual ~Source() = default;
  virtual uint64_t Size() const = 0;
  // Exactly `size` bytes at `offset`; false on a failed or short read.
  virtual bool ReadAt(uint64_t offset, void* buffer, size_t size) = 0;
};

// An archive held in memory (the caller's bytes, not copied).
class MemorySource : public Source {
 public:
  MemorySource(const void* data, size_t size)
      : data_(static_cast<const unsigned char*>(data)), size_(size) {}
  uint64_t Size() const override { return size_; }
  bool ReadAt(uint64_t offset, void* buffer, size_t size) override {
    if (offset > size_ || size > size_ - offset) return false;
    if (size > 0) std::memcpy(buffer, data_ + offset, size);
    return true;
  }

 private:
  const unsigned char* data_;
  size_t size_;
};

// Where an entry's bytes go.
class Sink {
 public:
  virtual ~Sink() = default;
  // kZipOk, or the result that stops the entry (kZipWriteError, for example).
  virtual ZipResult Write(const unsigned char* data, size_t size) = 0;
};

// Turns UTF-16 text into the narrow code page of the system exactly; false
// when a character has no exact form there (`ansi` then holds the text with a
// stand-in character, for showing only).
using AnsiConverter = bool (*)(const std::u16string& wide, std::string* ansi);

// The converter of the native builds: Windows-1252, exactly.
bool ExactCp1252(const std::u16string& wide, std::string* ansi);

// Turns a name in the OEM code page (the zip format's code page for names
// without the UTF-8 flag) into UTF-16; false when a byte has no character.
using OemDecoder = bool (*)(const std::string& oem, std::u16string* wide);

// The decoder of the native builds: IBM 437, the zip format's historic code page.
bool Cp437ToUtf16(const std::string& oem, std::u16string* wide);

// How entry names become the narrow names handed out.
struct NameCodec {
  OemDecoder oem = nullptr;
  AnsiConverter ansi = nullptr;
};
inline constexpr NameCodec kNativeNames{Cp437ToUtf16, ExactCp1252};

// Strict UTF-8 to UTF-16; false on an invalid or overlong sequence, a
// surrogate or a value above U+10FFFF (the text then holds U+FFFD for it).
bool Utf8ToUtf16(const std::string& utf8, std::u16string* wide);

uint16_t Le16(const unsigned char* p);
uint32_t Le32(const unsigned char* p);
uint64_t Le64(const unsigned char* p);

// One entry, from its central record, its Zip64 values already applied.
struct EntryInfo {
  // As handed out: decoded (UTF-8 when flagged so, else the Unicode Path
  // field when its CRC-32 matches the raw name, else the OEM code page),
  // converted to the narrow code page exactly, cleaned and cut at 259 characters.
  std::string name;
  bool usable = true;   // false when the name has no exact form in the code page
  bool folder = false;
  uint16_t flags = 0;
  uint16_t method = 0;
  uint16_t dos_time = 0;
  uint16_t dos_date = 0;
  uint32_t crc = 0;
  uint32_t external_attributes = 0;
  uint64_t compressed_size = 0;
  uint64_t size = 0;
  uint64_t local_offset = 0;
};

// The most entries an archive may have.
inline constexpr uint64_t kMaxEntries = 1u << 20;

// The central directory. Read checks the whole structure once; Entry then
// reads single records again through a window of fixed size, so that walking
// the entries in order reads the directory only once more.
class Directory {
 public:
  Directory();
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // kZipCorrupt when the structure is damaged or entries overlap, kZipReadError
  // when the source cannot be read, kZipNoMemory for too many entries or when
  // memory runs out. The source must outlive the directory.
  //
  // An archive is a Zip64 archive only when a Zip64 locator sits right before
  // the end record and points to a Zip64 end record that is really there
  // (with data in front of the archive: right before the locator): its
  // signature, a size that keeps it before the locator, and a directory in
  // front of it. Anything less (entry names and comments may hold the
  // signatures' bytes) leaves an ordinary archive, read from the end record
  // alone. When both records name the same directory, or the end record holds
  // all ones where a field does not fit and agrees with the Zip64 record in
  // every other field, the Zip64 record's values are read. When they name
  // different directories, the end record is read if none of its fields holds
  // all ones; if some do, neither record is whole and the archive is corrupt.
  // The reader never mixes fields of the two into a third directory.
  //
  // An archive with data in front of it (a self-extracting stub, padding) has
  // its central directory further on than the end record says: the difference
  // is found from where the directory really ends and applied to every offset,
  // and prefix() gives it. Offsets that stay inconsistent are corrupt.
  ZipResult Read(Source& source, NameCodec names);
  size_t count() const { return count_; }
  ZipResult Entry(size_t index, EntryInfo* entry);
  // Where entry `index`'s data must end: the next local header or the
  // central directory.
  uint64_t DataLimit(size_t index) const;
  // The bytes of data found in front of the archive (0 for most archives).
  uint64_t prefix() const { return prefix_; }

 private:
  struct Held;
  class Window;
  Source* source_ = nullptr;
  NameCodec names_;
  size_t count_ = 0;
  uint64_t prefix_ = 0;
  std::unique_ptr<Held[]> held_;
  std::unique_ptr<Window> window_;
};

// Unpacks entries through two buffers of fixed size and one inflate state,
// made at the first use and reused for every later entry.
class Unpacker {
 public:
  static constexpr size_t kBufferSize = 512 * 1024;

  Unpacker();
  ~Unpacker();
  Unpacker(const Unpacker&) = delete;
  Unpacker& operator=(const Unpacker&) = delete;

  // Checks what can be checked before any output exists: kZipPassword for an
  // encrypted entry; kZipCorrupt when the local header is missing, the data
  // runs past `limit`, or (for files) the method is neither stored nor
  // deflated or a stored entry's sizes differ. Gives the data's position.
  ZipResult Locate(Source& source, const EntryInfo& entry, uint64_t limit, uint64_t* data_at);
  // Streams the entry's data, unpacked, into `sink`: never more than its
  // declared size; kZipCorrupt when the data is damaged or its size or CRC
  // differs from the directory's.
  ZipResult Stream(Source& source, const EntryInfo& entry, uint64_t data_at, Sink& sink);

 private:
  struct Inflater;
  ZipResult Prepare();
  std::unique_ptr<unsigned char[]> in_;
  std::unique_ptr<unsigned char[]> out_;
  std::unique_ptr<Inflater> inflater_;
};

}  // namespace zip
}  // namespace dorvane
