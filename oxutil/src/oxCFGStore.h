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

// Why a file cannot be opened as a settings store.
struct oxCFGParseError {
  const char* reason = nullptr;  // Null: the file could not be read.
  size_t offset = 0;             // In the file, where the error was found.
};

enum class oxCFGKind : uint32_t { kKey = 0, kValue = 1 };

// A settings store: the document of its file, with an index by name. The document contains the whole file, including
// its layout: a change touches only the text that it sets, and adds elements on lines of their own. Texts and
// attributes in the document are not decoded, so that a save writes each reference as it was in the file (oxCFGText.h).
// Key paths are names joined by a backslash; empty names in them are skipped, so an empty path is the root. Of equal
// names the first counts. Keys and values exist only below keys; anything else is kept and ignored.
// Reading does not allocate, so memory exhaustion cannot make an entry seem missing, for which the caller would set a
// default.
// Threads: one at a time. Errors: false or empty; functions that open or change the store also throw std::bad_alloc.
class oxCFGStore {
 public:
  static constexpr size_t kMaxNameBytes = 511;
  static constexpr int kMaxDepth = 64;  // Nesting depth of elements, <config> included.

  oxCFGStore() = default;
  oxCFGStore(const oxCFGStore&) = delete;
  oxCFGStore& operator=(const oxCFGStore&) = delete;

  // Must be called once, before any other function. An empty file is an empty store.
  bool Open(const char* path);

  // For tools that inspect the file, after Open has succeeded or failed. Bytes returns what was read.
  const oxCFGParseError& ParseError() const { return parse_error_; }
  const std::string& Bytes() const { return saved_; }
  pugi::xml_node Root() const { return root_.node; }
  // Offset of an element in the bytes. The element must have been read from the file.
  size_t OffsetOf(pugi::xml_node element) const;

  bool KeyExists(std::string_view key) const { return FindKey(key) != nullptr; }
  // Adds the key and the missing keys above it.
  bool AddKey(std::string_view key);

  // Finds the entry that follows `previous` (empty: the first). The name is valid for the store's lifetime.
  bool Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind);

  // Passes the value's decoded text to callback(std::string_view), piece by piece.
  template <typename Callback>
  bool Read(std::string_view key, std::string_view name, Callback callback) const {
    const IndexedNode* const parent = FindKey(key);
    const IndexedNode* const value = parent == nullptr ? nullptr : Find(parent->node, oxCFGKind::kValue, name);
    if (value == nullptr) return false;
    ForEachPiece(value->node, callback);
    return true;
  }
  // Adds a missing value, but no key. Fails if the text contains a control byte that XML forbids.
  bool Set(std::string_view key, std::string_view name, const std::string& text);

  // Writes the file if the store has changed.
  bool Save();

  // Makes every Save fail. For a call that ran out of memory: the document may be incomplete.
  void DisableSave() { save_disabled_ = true; }

 private:
  struct IndexKey {
    const void* parent;  // The parent's node.
    oxCFGKind kind;
    std::string_view name;  // Points into the document or decoded_names_, where names never change.

    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 mistakes the defaulted operator for a 0.
    auto operator<=>(const IndexKey&) const = default;
  };
  struct IndexedNode {
    pugi::xml_node node;
    size_t order = 0;  // A later sibling has a higher one.
    // Of a key: the node that Next returned last. A name alone does not distinguish a key from a value.
    mutable pugi::xml_node cursor = {};
  };
  class Indexer;

  static bool IsText(pugi::xml_node node) {
    return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
  }

  template <typename Callback>
  static void ForEachPiece(pugi::xml_node value, Callback& callback) {
    for (const pugi::xml_node child : value.children()) {
      if (child.type() == pugi::node_cdata) callback(std::string_view(child.value()));
      if (child.type() == pugi::node_pcdata) oxCFGDecode(child.value(), callback);
    }
  }
  static std::string Text(pugi::xml_node value);
  static void SetText(pugi::xml_node value, const std::string& text);

  bool Parse(std::string_view bytes);
  bool CheckAndIndex(pugi::xml_node node);
  bool CheckAttributes(pugi::xml_node node);
  bool Fail(const char* reason, ptrdiff_t offset);
  size_t BomSize() const;  // Size of the byte order mark at the start of the file, or 0.
  std::optional<IndexKey> IndexKeyOf(pugi::xml_node node) const;
  void AddToIndex(pugi::xml_node node);
  const IndexedNode* Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const;
  const IndexedNode* FindKey(std::string_view path) const;
  pugi::xml_node FindLast(pugi::xml_node key, std::string_view name) const;
  pugi::xml_node Append(pugi::xml_node key, oxCFGKind kind, std::string_view name);
  std::string Serialize();

  oxCFGFile file_;
  std::string saved_;  // Content of the file.
  pugi::xml_document document_;
  IndexedNode root_;
  // Ordered, not hashed, so that no choice of names in a file makes it slow. Contains the first of equal names, and
  // only names that a path can contain.
  std::map<IndexKey, IndexedNode> index_;
  std::map<const void*, std::string> decoded_names_;  // By node, for names with references.
  oxCFGParseError parse_error_;
  bool dirty_ = false;
  bool save_disabled_ = false;
};
