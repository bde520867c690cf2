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
  const char* reason = nullptr;  // Null if the file could not be read, or was opened.
  size_t offset = 0;             // Offset in the file at which the error was found.
};

enum class oxCFGKind : uint32_t { kKey = 0, kValue = 1 };

// A settings store: the XML document of its file, with an index by name. The document keeps the whole file, including
// its layout: Set changes only the text of one value, and each new element gets its own line. Text and attributes in
// the document stay encoded (oxCFGText.h), so that a save writes each reference as it was in the file.
//
// A key path joins names with backslashes; empty names in it are skipped, so an empty path is the root. If two sub-keys
// or two values of a key have the same name, the first counts. Elements that are not keys or values of the store are
// kept and ignored.
//
// Reading does not allocate: otherwise memory exhaustion could make a value seem missing, and the caller would set it
// to its default.
//
// Threads: one at a time. Errors: methods return false; those that open, change or save the store may throw
// std::bad_alloc.
class oxCFGStore {
 public:
  static constexpr size_t kMaxNameBytes = 511;
  static constexpr int kMaxDepth = 64;  // Nesting depth of elements, <config> included.

  oxCFGStore() = default;
  oxCFGStore(const oxCFGStore&) = delete;
  oxCFGStore& operator=(const oxCFGStore&) = delete;

  // Must be called once, before any other function. An empty file is an empty store.
  bool Open(const char* path);

  // For tools that inspect the file: valid after Open, even if Open failed. Bytes returns the content of the file.
  const oxCFGParseError& ParseError() const { return parse_error_; }
  const std::string& Bytes() const { return saved_; }
  pugi::xml_node Root() const { return root_.node; }
  // Returns the offset of an element in Bytes(). The element must have been read from the file.
  size_t OffsetOf(pugi::xml_node element) const;

  bool KeyExists(std::string_view key) const { return FindKey(key) != nullptr; }
  // Adds the key and the missing keys above it.
  bool AddKey(std::string_view key);

  // Finds the sub-key or value after `previous`, or the first one if `previous` is empty. Returns false after the last.
  // *name is valid for the store's lifetime.
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
  // Sets the text of the value, which is added if it is missing. Fails if the key is missing, if the name is not valid,
  // or if the text contains a control byte that XML forbids.
  bool Set(std::string_view key, std::string_view name, const std::string& text);

  // Writes the file if the store has changed.
  bool Save();

  // Makes every later Save fail. Call it after a method ran out of memory: the document may be incomplete.
  void DisableSave() { save_disabled_ = true; }

 private:
  struct IndexKey {
    const void* parent;  // The parent's internal_object().
    oxCFGKind kind;
    std::string_view name;  // Points into the document or decoded_names_, where names never change.

    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 mistakes the defaulted operator for a 0.
    auto operator<=>(const IndexKey&) const = default;
  };
  struct IndexedNode {
    pugi::xml_node node;
    size_t order = 0;  // Higher than that of every earlier sibling.
    // For a key: the child that Next found last. Its name alone would not tell whether it is a sub-key or a value.
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
  bool CheckAndEscapeAttributes(pugi::xml_node node);
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
  std::string saved_;  // Content of the file when it was last read or saved.
  pugi::xml_document document_;
  IndexedNode root_;
  // Ordered, not hashed, so that no choice of names in a file makes it slow. Contains only the elements that count: the
  // first sub-key and the first value of each valid name in a key.
  std::map<IndexKey, IndexedNode> index_;
  std::map<const void*, std::string> decoded_names_;  // By node; only for names that contain a reference.
  oxCFGParseError parse_error_;
  bool dirty_ = false;  // A call has changed the document.
  bool save_disabled_ = false;
};
