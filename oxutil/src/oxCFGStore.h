// The tree of keys and values.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "oxCFGFile.h"
#include "oxCFGText.h"

// Why a file is no settings store, and the byte of the file at which that shows.
struct oxCFGRefusal {
  const char* reason = nullptr;  // Null: the file could not be read.
  size_t offset = 0;
};

enum class oxCFGKind : uint32_t { kKey = 0, kValue = 1 };

// A settings store: the document of its file, with an index by name. The document keeps all of the file, its layout
// too: a change touches only the text that it sets, and adds elements on lines of their own. The document's texts and
// attributes are raw, so that a save writes each reference as the file has it (oxCFGText.h).
// Key paths are names joined by a backslash; empty names in them are skipped, so an empty path is the root. Of equal
// names the first counts. Keys and values live only below keys; anything else is kept and ignored.
// Reading allocates nothing, so that what seems missing is missing: its caller sets a default for it.
// Threads: one at a time. Errors: false or empty; from what changes or opens the store also std::bad_alloc.
class oxCFGStore {
 public:
  static constexpr size_t kMaxNameBytes = 511;
  static constexpr int kMaxDepth = 64;  // Nesting depth of elements, <config> included.

  oxCFGStore() = default;
  oxCFGStore(const oxCFGStore&) = delete;
  oxCFGStore& operator=(const oxCFGStore&) = delete;

  // Once, before anything else. An empty file is an empty store.
  bool Open(const char* path);

  // For whoever looks at the file itself, once it is open or refused. The bytes are those that were read.
  const oxCFGRefusal& Refusal() const { return refusal_; }
  const std::string& Bytes() const { return saved_; }
  pugi::xml_node Root() const { return root_.node; }
  // Where an element begins in the bytes; only of one that the file holds.
  size_t OffsetOf(pugi::xml_node element) const;

  bool KeyExists(std::string_view key) const { return FindKey(key) != nullptr; }
  // Adds the key and what is missing above it.
  bool AddKey(std::string_view key);

  // The entry that follows `previous` (empty: the first). The name is valid as long as the store.
  bool Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind);

  // Calls take(std::string_view) with the value's text, piece by piece.
  template <typename Take>
  bool Read(std::string_view key, std::string_view name, Take take) const {
    const Item* const parent = FindKey(key);
    const Item* const value = parent == nullptr ? nullptr : Find(parent->node, oxCFGKind::kValue, name);
    if (value == nullptr) return false;
    ForEachPiece(value->node, take);
    return true;
  }
  // Adds a missing value, but no key. Fails where the text holds a control byte that XML cannot hold.
  bool Set(std::string_view key, std::string_view name, const std::string& text);

  // Writes the store back if anything has changed.
  bool Save();

  // For when memory has run out in a call: the document may be incomplete.
  void RefuseSave() { refuses_save_ = true; }

 private:
  struct Entry {
    const void* parent;  // The parent's node.
    oxCFGKind kind;
    std::string_view name;  // In the document or decoded_names_, neither of which ever changes a name.

    auto operator<=>(const Entry&) const = default;  // NOLINT(modernize-use-nullptr): clang-tidy 14 takes it for a 0.
  };
  struct Item {
    pugi::xml_node node;
    size_t order = 0;  // A later sibling has a higher one.
    // For a key, the node that Next returned last. A name alone does not tell a key from a value.
    mutable pugi::xml_node cursor = {};
  };
  class Indexer;

  static bool IsText(pugi::xml_node node) {
    return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
  }

  template <typename Take>
  static void ForEachPiece(pugi::xml_node value, Take& take) {
    for (const pugi::xml_node child : value.children()) {
      if (child.type() == pugi::node_cdata) take(std::string_view(child.value()));
      if (child.type() == pugi::node_pcdata) oxCFGDecode(child.value(), take);
    }
  }
  static std::string Text(pugi::xml_node value);
  static void SetText(pugi::xml_node value, const std::string& text);

  bool Parse(std::string_view bytes);
  bool Enter(pugi::xml_node node);
  bool EnterAttributes(pugi::xml_node node);
  bool Refuse(const char* reason, ptrdiff_t offset);
  size_t MarkSize() const;  // Size of the byte order mark that the file begins with; 0 without one.
  std::optional<Entry> EntryOf(pugi::xml_node node) const;
  void AddToIndex(pugi::xml_node node);
  const Item* Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const;
  const Item* FindKey(std::string_view path) const;
  pugi::xml_node FindLast(pugi::xml_node key, std::string_view name) const;
  pugi::xml_node Append(pugi::xml_node key, oxCFGKind kind, std::string_view name);
  std::string Serialize();

  oxCFGFile file_;
  std::string saved_;  // What the file holds.
  bool has_byte_order_mark_ = false;
  pugi::xml_document document_;
  Item root_;
  // Ordered, not hashed: no choice of names in a file makes it slow. The first of equal names; none that no path holds.
  std::map<Entry, Item> index_;
  std::map<const void*, std::string> decoded_names_;  // By node; of names with references.
  oxCFGRefusal refusal_;
  bool dirty_ = false;
  bool refuses_save_ = false;
};
