#include "stat/library.h"

#include <elf.h>

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "base/oxEventStat.h"

namespace {

constexpr uint32_t kMaxSegmentBytes = 65536;  // Notes are short: a larger segment is not read.
constexpr std::string_view kOwner("oxEvent", sizeof("oxEvent"));

size_t RoundUp(size_t size, size_t alignment) { return (size + alignment - 1) / alignment * alignment; }

// Returns the offset, in a segment of notes, at which the contents of the library's note begin.
std::optional<size_t> FindNote(std::string_view notes, size_t alignment) {
  size_t at = 0;
  Elf64_Nhdr header;
  while (notes.size() - at > sizeof(header)) {
    std::memcpy(&header, notes.data() + at, sizeof(header));
    const size_t contents = at + RoundUp(sizeof(header) + header.n_namesz, alignment);
    const size_t end = contents + RoundUp(header.n_descsz, alignment);
    if (end > notes.size()) break;
    const std::string_view owner = notes.substr(at + sizeof(header), header.n_namesz);
    if (owner == kOwner && header.n_type == 1 && header.n_descsz == sizeof(uint64_t)) return contents;
    at = end;
  }
  return std::nullopt;
}

// Returns the address of the block to which a segment of notes refers; 0 if there is none.
uint64_t BlockOfNotes(const Process& process, uint64_t address, uint64_t size, uint64_t alignment) {
  if (size > kMaxSegmentBytes) return 0;
  std::string notes(size, '\0');
  if (!process.Read(address, notes.data(), notes.size())) return 0;
  const std::optional<size_t> contents = FindNote(notes, alignment == 8 ? 8 : 4);
  if (!contents) return 0;
  uint64_t offset = 0;
  std::memcpy(&offset, notes.data() + *contents, sizeof(offset));
  const uint64_t block = address + *contents + offset;
  char magic[sizeof(oxEventStatBlock::magic)];
  return process.Read(block, magic, sizeof(magic)) && std::string_view(magic, sizeof(magic)) == kOwner ? block : 0;
}

// Reads the program headers of the file whose beginning is mapped at this address. Returns none if the file is neither
// a program nor a library.
std::vector<Elf64_Phdr> ProgramHeaders(const Process& process, uint64_t start) {
  Elf64_Ehdr header;
  if (!process.Read(start, &header, sizeof(header)) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr)) {
    return {};
  }
  std::vector<Elf64_Phdr> headers(header.e_phnum);
  if (!process.Read(start + header.e_phoff, headers.data(), headers.size() * sizeof(Elf64_Phdr))) return {};
  return headers;
}

uint64_t BlockOfFile(const Process& process, uint64_t start) {
  std::optional<uint64_t> bias;  // The difference between an address in memory and one in the file.
  for (const Elf64_Phdr& header : ProgramHeaders(process, start)) {
    if (header.p_type == PT_LOAD && !bias) bias = start + header.p_offset - header.p_vaddr;
  }
  if (!bias) return 0;
  for (const Elf64_Phdr& header : ProgramHeaders(process, start)) {
    if (header.p_type != PT_NOTE) continue;
    const uint64_t block = BlockOfNotes(process, *bias + header.p_vaddr, header.p_memsz, header.p_align);
    if (block != 0) return block;
  }
  return 0;
}

}  // namespace

std::vector<uint64_t> FindBlocks(const Process& process) {
  std::vector<uint64_t> blocks;
  for (const uint64_t start : process.MappedFiles()) {
    if (const uint64_t block = BlockOfFile(process, start); block != 0) blocks.push_back(block);
  }
  return blocks;
}
