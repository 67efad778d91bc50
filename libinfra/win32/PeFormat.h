#pragma once
// The PE structures the parsers read, defined here rather than taken from <windows.h> so that
// the same parsing code builds on every platform. Only the fields the parsers use are named;
// the layouts are checked against the format's published offsets.
#include <cstddef>
#include <cstdint>

namespace pe {

struct DosHeader {
  std::uint16_t magic;  // "MZ"
  std::uint8_t unused[58];
  std::int32_t newHeaderOffset;  // e_lfanew
};
static_assert(sizeof(DosHeader) == 64 && offsetof(DosHeader, newHeaderOffset) == 60);

struct DataDirectory {
  std::uint32_t virtualAddress;
  std::uint32_t size;
};

inline constexpr std::uint32_t kExportDirectoryIndex = 0;
inline constexpr std::uint32_t kResourceDirectoryIndex = 2;

// IMAGE_NT_HEADERS64: signature, file header, optional header (PE32+).
struct NtHeaders64 {
  std::uint32_t signature;  // "PE\0\0"
  std::uint16_t machine;
  std::uint16_t numberOfSections;
  std::uint32_t timeDateStamp;
  std::uint32_t pointerToSymbolTable;
  std::uint32_t numberOfSymbols;
  std::uint16_t sizeOfOptionalHeader;
  std::uint16_t characteristics;
  std::uint16_t magic;  // 0x20B
  std::uint8_t unused1[54];
  std::uint32_t sizeOfImage;
  std::uint32_t sizeOfHeaders;
  std::uint8_t unused2[44];
  std::uint32_t numberOfRvaAndSizes;
  DataDirectory dataDirectory[16];
};
static_assert(offsetof(NtHeaders64, magic) == 24 && offsetof(NtHeaders64, sizeOfImage) == 80 &&
              offsetof(NtHeaders64, sizeOfHeaders) == 84 && offsetof(NtHeaders64, numberOfRvaAndSizes) == 132 &&
              offsetof(NtHeaders64, dataDirectory) == 136 && sizeof(NtHeaders64) == 264);

inline constexpr std::uint16_t kDosMagic = 0x5A4D;
inline constexpr std::uint32_t kNtSignature = 0x00004550;
inline constexpr std::uint16_t kPe32PlusMagic = 0x20B;

struct SectionHeader {
  char name[8];
  std::uint32_t virtualSize;
  std::uint32_t virtualAddress;
  std::uint32_t sizeOfRawData;
  std::uint32_t pointerToRawData;
  std::uint8_t unused[16];
};
static_assert(sizeof(SectionHeader) == 40);

struct ExportDirectory {
  std::uint32_t characteristics;
  std::uint32_t timeDateStamp;
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
  std::uint32_t name;
  std::uint32_t base;
  std::uint32_t numberOfFunctions;
  std::uint32_t numberOfNames;
  std::uint32_t addressOfFunctions;     // RVA of 32-bit RVAs
  std::uint32_t addressOfNames;         // RVA of 32-bit RVAs, sorted by name
  std::uint32_t addressOfNameOrdinals;  // RVA of 16-bit function indices
};
static_assert(sizeof(ExportDirectory) == 40 && offsetof(ExportDirectory, addressOfFunctions) == 28);

struct ResourceDirectory {
  std::uint32_t characteristics;
  std::uint32_t timeDateStamp;
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
  std::uint16_t numberOfNamedEntries;
  std::uint16_t numberOfIdEntries;  // the entries follow, named ones first
};
static_assert(sizeof(ResourceDirectory) == 16);

struct ResourceDirectoryEntry {
  std::uint32_t name;    // an id, or (high bit set) the offset of a name
  std::uint32_t offset;  // high bit set: a subdirectory; otherwise a data entry
};
static_assert(sizeof(ResourceDirectoryEntry) == 8);

inline constexpr std::uint32_t kResourceHighBit = 0x80000000;

struct ResourceDataEntry {
  std::uint32_t offsetToData;  // an RVA
  std::uint32_t size;
  std::uint32_t codePage;
  std::uint32_t reserved;
};
static_assert(sizeof(ResourceDataEntry) == 16);

inline constexpr std::uint32_t kVersionResourceType = 16;  // RT_VERSION

// VS_FIXEDFILEINFO: the first eight 32-bit fields are read.
struct FixedFileInfo {
  std::uint32_t signature;  // 0xFEEF04BD
  std::uint32_t structureVersion;
  std::uint32_t fileVersionMs;
  std::uint32_t fileVersionLs;
  std::uint32_t productVersionMs;
  std::uint32_t productVersionLs;
  std::uint32_t fileFlagsMask;
  std::uint32_t fileFlags;
  std::uint32_t rest[5];
};
static_assert(sizeof(FixedFileInfo) == 52);

inline constexpr std::uint32_t kFixedFileInfoSignature = 0xFEEF04BD;

}  // namespace pe
