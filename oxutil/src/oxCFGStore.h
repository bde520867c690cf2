// The tree of keys and values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <unordered_map>

#include "oxCFGFile.h"

// Why a file is no settings store, and the byte of the file at which that shows.
struct oxCFGRefusal {
  const char* reason = nullptr;  // Null: the file could not be read.
  size_t offset = 0;
};

enum class oxCFGKind : uint32_t { kKey = 0, kValue = 1 };

// A settings store: the document of its file, with an index by name. The document keeps all of the file, its layout
// too: a change touches only the text that it sets, and adds elements on lines of their own.
// Key paths are names joined by a backslash; empty names in them are skipped, so an empty path is the root. Of equal
// names the first counts. Keys and values live only below keys; anything else is kept and ignored.
// Threads: one at a time. Errors: false or empty; std::bad_alloc.
class oxCFGStore {
 public:
  static constexpr size_t kMaxNameBytes = 511;
  static constexpr int kMaxDepth = 64;  // Of nested elements, <config> included.

  oxCFGStore() = default;
  oxCFGStore(const oxCFGStore&) = delete;
  oxCFGStore& operator=(const oxCFGStore&) = delete;

  // Once, before anything else. An empty file is an empty store.
  bool Open(const char* path);

  // For whoever looks at the file itself, once it is open or refused. The bytes are those that were read.
  const oxCFGRefusal& Refusal() const { return refusal_; }
  const std::string& Bytes() const { return saved_; }
  pugi::xml_node Root() const { return root_; }
  // Where an element begins in the bytes; only of one that the file holds.
  size_t OffsetOf(pugi::xml_node element) const;

  bool KeyExists(std::string_view key) const { return !FindKey(key).empty(); }
  // Adds the key and what is missing above it.
  bool AddKey(std::string_view key);

  // The entry that follows `previous` (empty: the first). The name is valid as long as the store.
  bool Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind);

  std::optional<std::string> Get(std::string_view key, std::string_view name) const;
  // Adds a missing value, but no key.
  bool Set(std::string_view key, std::string_view name, const std::string& text);

  // Writes the store back if anything has changed.
  bool Save();

  // For when memory has run out in a call: its caller may have taken for missing what is there, and set a default.
  void RefuseSave() { refuses_save_ = true; }
  bool RefusesSave() const { return refuses_save_; }

 private:
  struct Entry {
    const void* parent;  // The parent's node.
    oxCFGKind kind;
    std::string_view name;  // In the document, which never changes a name.

    bool operator==(const Entry&) const = default;
  };
  struct EntryHash {
    size_t operator()(const Entry& entry) const;
  };
  class Indexer;

  static std::optional<Entry> EntryOf(pugi::xml_node node);

  bool Parse(std::string_view bytes);
  bool Refuse(const char* reason, ptrdiff_t offset);
  size_t MarkSize() const;  // Of the byte order mark that the file begins with.
  void AddToIndex(pugi::xml_node node);
  pugi::xml_node Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const;
  pugi::xml_node FindKey(std::string_view path) const;
  pugi::xml_node FindLast(pugi::xml_node key, std::string_view name) const;
  pugi::xml_node Append(pugi::xml_node key, oxCFGKind kind, std::string_view name);
  std::string Serialize();

  oxCFGFile file_;
  std::string saved_;  // What the file holds.
  bool has_byte_order_mark_ = false;
  pugi::xml_document document_;
  pugi::xml_node root_;
  std::unordered_map<Entry, pugi::xml_node, EntryHash> index_;  // The first of equal names.
  // The entry that Next returned last, by key: a name alone does not tell a key from a value.
  std::unordered_map<const void*, pugi::xml_node> cursors_;
  oxCFGRefusal refusal_;
  bool dirty_ = false;
  bool refuses_save_ = false;
};
