#include "oxCFGStore.h"

#include <algorithm>
#include <new>

using namespace std::string_view_literals;

namespace {

// The parser keeps everything and neither normalizes nor decodes, so that offsets in the document equal those in the
// file. Parsing as a fragment also keeps text outside the root element, which Parse then rejects.
constexpr unsigned kParseOptions = pugi::parse_pi | pugi::parse_comments | pugi::parse_declaration |
                                   pugi::parse_doctype | pugi::parse_cdata | pugi::parse_ws_pcdata |
                                   pugi::parse_fragment;

constexpr std::string_view kBom = "\xEF\xBB\xBF";  // The byte order mark in UTF-8.

constexpr std::string_view kEmptyStore = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config/>\n";

constexpr char kBadReference[] = "a reference to a character that XML cannot hold";

constexpr const char* kElementNames[] = {"key", "value"};  // By oxCFGKind.

// Limits the memory of the document: parsed tags take many times their size in the file. Keys and values have at least
// kMinBytesPerTag, as in <key name="a"></key>; a file with at most kFewTags tags may have fewer bytes per tag.
constexpr size_t kMinBytesPerTag = 10;
constexpr size_t kFewTags = 65536;

struct StringWriter : pugi::xml_writer {
  void write(const void* data, size_t size) override { bytes.append(static_cast<const char*>(data), size); }

  std::string bytes;
};

// Throws if the result is a null handle or false, by which pugixml reports memory exhaustion.
template <typename Result>
Result Allocated(Result result) {
  if (!result) throw std::bad_alloc();
  return result;
}

bool IsWhiteSpace(std::string_view text) { return text.find_first_not_of(kOxCFGWhiteSpace) == std::string_view::npos; }

bool IsTooDense(std::string_view bytes) {
  const auto tags = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '<'));
  return tags > std::max(bytes.size() / kMinBytesPerTag, kFewTags);
}

bool IsValidName(std::string_view name) {
  return !name.empty() && name.size() <= oxCFGStore::kMaxNameBytes && name.find('\\') == std::string_view::npos &&
         oxCFGFindControl(name) == std::string_view::npos;
}

// Removes the next name from a path. Returns false at the end.
bool NextName(std::string_view* path, std::string_view* name) {
  path->remove_prefix(std::min(path->find_first_not_of('\\'), path->size()));
  *name = path->substr(0, path->find('\\'));
  path->remove_prefix(name->size());
  return !name->empty();
}

int Depth(pugi::xml_node element) {
  int depth = 0;
  for (; element.type() == pugi::node_element; element = element.parent()) ++depth;
  return depth;
}

// pugixml does not expand entities that the file declares, so the store would treat references to them as text.
bool DeclaresEntities(pugi::xml_node node) {
  return node.type() == pugi::node_doctype && std::string_view(node.value()).find("<!ENTITY") != std::string_view::npos;
}

std::string LineStart(int depth) { return "\n" + std::string(static_cast<size_t>(depth) * 2, ' '); }

}  // namespace

// traverse() is not recursive, so deeply nested elements cannot overflow the stack.
class oxCFGStore::Indexer : public pugi::xml_tree_walker {
 public:
  explicit Indexer(oxCFGStore* store) : store_(*store) {}

  bool for_each(pugi::xml_node& node) override {
    if (node.type() == pugi::node_element && depth() >= kMaxDepth) {
      return store_.Fail("elements nested more than 64 deep", node.offset_debug());
    }
    return store_.CheckAndIndex(node);
  }

 private:
  oxCFGStore& store_;
};

std::string oxCFGStore::Text(pugi::xml_node value) {
  std::string text;
  const auto append = [&](std::string_view piece) { text += piece; };
  ForEachPiece(value, append);
  return text;
}

// Keeps comments inside the value. Adds the new text first, so that the old text is not lost if memory runs out.
void oxCFGStore::SetText(pugi::xml_node value, const std::string& text) {
  pugi::xml_node added;
  if (!text.empty()) {
    added = Allocated(value.append_child(pugi::node_pcdata));
    if (!added.set_value(oxCFGEncoded(text, oxCFGContext::kElement).c_str())) {
      value.remove_child(added);
      throw std::bad_alloc();
    }
  }
  for (pugi::xml_node child = value.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (IsText(child) && child != added) value.remove_child(child);
    child = next;
  }
}

bool oxCFGStore::Open(const char* path) {
  if (!file_.Read(path, &saved_)) return false;
  const std::string_view text = std::string_view(saved_).substr(BomSize());
  return Parse(IsWhiteSpace(text) ? kEmptyStore : text);
}

size_t oxCFGStore::OffsetOf(pugi::xml_node element) const {
  // offset_debug() is the offset of the name, after "<".
  return BomSize() + static_cast<size_t>(element.offset_debug()) - 1;
}

bool oxCFGStore::AddKey(std::string_view key) {
  if (KeyExists(key)) return true;
  int names = 0;
  std::string_view name;
  for (std::string_view path = key; NextName(&path, &name); ++names) {
    if (!IsValidName(name)) return false;
  }
  if (names + 2 > kMaxDepth) return false;  // The root element and a value below the key count too.
  pugi::xml_node parent = root_.node;
  while (NextName(&key, &name)) {
    const IndexedNode* const child = Find(parent, oxCFGKind::kKey, name);
    parent = child != nullptr ? child->node : Append(parent, oxCFGKind::kKey, name);
  }
  return true;
}

bool oxCFGStore::Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind) {
  const IndexedNode* const parent = FindKey(key);
  if (parent == nullptr) return false;
  pugi::xml_node& cursor = parent->cursor;
  const std::optional<IndexKey> last = cursor ? IndexKeyOf(cursor) : std::nullopt;
  if (!previous.empty() && (!last || last->name != previous)) cursor = FindLast(parent->node, previous);
  pugi::xml_node node = previous.empty() ? parent->node.first_child() : cursor.next_sibling();
  for (; node; node = node.next_sibling()) {
    const std::optional<IndexKey> entry = IndexKeyOf(node);
    const auto found = entry ? index_.find(*entry) : index_.end();
    if (found == index_.end() || found->second.node != node) continue;
    cursor = node;
    *name = entry->name;
    *kind = entry->kind;
    return true;
  }
  return false;
}

bool oxCFGStore::Set(std::string_view key, std::string_view name, const std::string& text) {
  if (oxCFGFindControl(text) != std::string::npos) return false;
  const IndexedNode* const parent = FindKey(key);
  if (parent == nullptr) return false;
  const IndexedNode* const known = Find(parent->node, oxCFGKind::kValue, name);
  if (known != nullptr && Text(known->node) == text) return true;
  if (known == nullptr && (!IsValidName(name) || Depth(parent->node) >= kMaxDepth)) return false;
  SetText(known != nullptr ? known->node : Append(parent->node, oxCFGKind::kValue, name), text);
  dirty_ = true;
  return true;
}

bool oxCFGStore::Save() {
  if (save_disabled_) return false;
  if (!dirty_) return true;
  std::string bytes = Serialize();
  if (bytes != saved_ && !file_.Replace(bytes)) return false;
  saved_ = std::move(bytes);
  return true;
}

bool oxCFGStore::Parse(std::string_view bytes) {
  if (const size_t control = oxCFGFindControl(bytes); control != bytes.npos) {
    return Fail("a control byte, which XML cannot hold", static_cast<ptrdiff_t>(control));
  }
  if (IsTooDense(bytes)) return Fail("too much markup", 0);
  if (bytes.starts_with(kBom)) return Fail("a second byte order mark", 0);  // The parser would drop it silently.
  // Treats the bytes as UTF-8, whatever encoding the file declares.
  const auto parsed = document_.load_buffer(bytes.data(), bytes.size(), kParseOptions, pugi::encoding_utf8);
  if (!parsed) return Fail(parsed.description(), parsed.offset);
  for (const pugi::xml_node node : document_.children()) {
    if (DeclaresEntities(node)) return Fail("entity declarations", node.offset_debug());
    if (node.type() == pugi::node_cdata || (node.type() == pugi::node_pcdata && !IsWhiteSpace(node.value()))) {
      return Fail("text outside the root element", node.offset_debug());
    }
    if (node.type() != pugi::node_element) continue;
    if (root_.node) return Fail("a second root element", node.offset_debug());
    if (node.name() != "config"sv) return Fail("a root element other than config", node.offset_debug());
    root_.node = node;
  }
  if (!root_.node) return Fail("no element config", static_cast<ptrdiff_t>(bytes.size()));
  Indexer indexer(this);
  return document_.traverse(indexer);
}

// Adds the node to the index. Fails if a save could not write the node back unchanged.
bool oxCFGStore::CheckAndIndex(pugi::xml_node node) {
  const std::string_view text = node.value();
  if (node.type() == pugi::node_comment) {
    const size_t dashes = text.ends_with('-') ? std::min(text.find("--"), text.size() - 1) : text.find("--");
    if (dashes != text.npos) {
      return Fail("a comment with -- inside", node.offset_debug() + static_cast<ptrdiff_t>(dashes));
    }
  } else if (node.type() == pugi::node_pcdata) {
    if (const size_t bad = oxCFGFindBadReference(text); bad != text.npos) {
      return Fail(kBadReference, node.offset_debug() + static_cast<ptrdiff_t>(bad));
    }
  }
  if (!CheckAndEscapeAttributes(node)) return false;
  AddToIndex(node);
  return true;
}

bool oxCFGStore::CheckAndEscapeAttributes(pugi::xml_node node) {
  for (pugi::xml_attribute attribute : node.attributes()) {
    std::string_view raw = attribute.value();
    if (const size_t bad = oxCFGFindBadReference(raw); bad != raw.npos) {
      // The node's name and the value point into the same copy of the bytes.
      return Fail(kBadReference, node.offset_debug() + (raw.data() + bad - node.name()));
    }
    if (raw.find('"') == raw.npos) continue;
    // The file delimits this attribute with apostrophes, but a save uses quotes, so quotes inside it must be escaped.
    std::string quoted;
    for (size_t quote; (quote = raw.find('"')) != raw.npos; raw.remove_prefix(quote + 1)) {
      quoted.append(raw.substr(0, quote)).append("&quot;");
    }
    Allocated(attribute.set_value(quoted.append(raw).c_str()));
  }
  return true;
}

bool oxCFGStore::Fail(const char* reason, ptrdiff_t offset) {
  parse_error_ = {reason, BomSize() + static_cast<size_t>(std::max<ptrdiff_t>(offset, 0))};
  return false;
}

size_t oxCFGStore::BomSize() const { return saved_.starts_with(kBom) ? kBom.size() : 0; }

std::optional<oxCFGStore::IndexKey> oxCFGStore::IndexKeyOf(pugi::xml_node node) const {
  const pugi::xml_attribute attribute = node.attribute("name");
  if (!attribute) return std::nullopt;
  const auto decoded = decoded_names_.find(node.internal_object());
  const std::string_view name = decoded == decoded_names_.end() ? attribute.value() : std::string_view(decoded->second);
  for (const oxCFGKind kind : {oxCFGKind::kKey, oxCFGKind::kValue}) {
    if (node.name() == std::string_view(kElementNames[static_cast<size_t>(kind)])) {
      return IndexKey{node.parent().internal_object(), kind, name};
    }
  }
  return std::nullopt;
}

void oxCFGStore::AddToIndex(pugi::xml_node node) {
  const std::string_view raw = node.attribute("name").value();
  if (raw.find('&') != raw.npos) decoded_names_.emplace(node.internal_object(), oxCFGDecoded(raw));
  const std::optional<IndexKey> entry = IndexKeyOf(node);
  if (entry && IsValidName(entry->name)) index_.try_emplace(*entry, IndexedNode{node, index_.size()});
}

const oxCFGStore::IndexedNode* oxCFGStore::Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const {
  const auto found = index_.find(IndexKey{key.internal_object(), kind, name});
  return found == index_.end() ? nullptr : &found->second;
}

const oxCFGStore::IndexedNode* oxCFGStore::FindKey(std::string_view path) const {
  const IndexedNode* key = &root_;
  for (std::string_view name; key != nullptr && NextName(&path, &name);) key = Find(key->node, oxCFGKind::kKey, name);
  return key;
}

// If a sub-key and a value have the same name, returns the later of the two, so that every iteration ends.
pugi::xml_node oxCFGStore::FindLast(pugi::xml_node key, std::string_view name) const {
  const IndexedNode* const sub_key = Find(key, oxCFGKind::kKey, name);
  const IndexedNode* const value = Find(key, oxCFGKind::kValue, name);
  if (sub_key == nullptr || value == nullptr) {
    return sub_key != nullptr ? sub_key->node : value != nullptr ? value->node : pugi::xml_node();
  }
  return sub_key->order > value->order ? sub_key->node : value->node;
}

// Adds the element on its own line before the end tag of the parent.
pugi::xml_node oxCFGStore::Append(pugi::xml_node key, oxCFGKind kind, std::string_view name) {
  const int depth = Depth(key);
  pugi::xml_node tail = key.last_child();
  if (!IsText(tail) || !IsWhiteSpace(tail.value())) {
    tail = Allocated(key.append_child(pugi::node_pcdata));
    Allocated(tail.set_value(LineStart(depth - 1).c_str()));
  }
  pugi::xml_node line_start = Allocated(key.insert_child_before(pugi::node_pcdata, tail));
  Allocated(line_start.set_value(LineStart(depth).c_str()));
  pugi::xml_node node = Allocated(key.insert_child_before(kElementNames[static_cast<size_t>(kind)], tail));
  Allocated(Allocated(node.append_attribute("name")).set_value(oxCFGEncoded(name, oxCFGContext::kAttribute).c_str()));
  AddToIndex(node);
  dirty_ = true;
  return node;
}

std::string oxCFGStore::Serialize() {
  const auto is_declaration = [](pugi::xml_node node) { return node.type() == pugi::node_declaration; };
  if (!document_.find_child(is_declaration)) {
    Allocated(Allocated(document_.prepend_child(pugi::node_pcdata)).set_value("\n"));
    pugi::xml_node declaration = Allocated(document_.prepend_child(pugi::node_declaration));
    Allocated(Allocated(declaration.append_attribute("version")).set_value("1.0"));
    Allocated(Allocated(declaration.append_attribute("encoding")).set_value("UTF-8"));
  }
  StringWriter writer;
  writer.bytes = saved_.substr(0, BomSize());
  document_.save(writer, "", pugi::format_raw | pugi::format_no_declaration | pugi::format_no_escapes,
                 pugi::encoding_utf8);
  return std::move(writer.bytes);
}
