#include "oxCFGStore.h"

#include <algorithm>
#include <new>

using namespace std::string_view_literals;

namespace {

// Everything is kept and nothing is normalized or decoded, so that offsets within the document are those of the file.
// As a fragment, text outside the root is kept too, to be refused.
constexpr unsigned kParseOptions = pugi::parse_pi | pugi::parse_comments | pugi::parse_declaration |
                                   pugi::parse_doctype | pugi::parse_cdata | pugi::parse_ws_pcdata |
                                   pugi::parse_fragment;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // The byte order mark of UTF-8.

constexpr std::string_view kEmptyStore = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config/>\n";

constexpr char kBadReference[] = "a reference to a character that XML cannot hold";

constexpr const char* kElementNames[] = {"key", "value"};  // By oxCFGKind.

// Markup takes many times its size in memory. What keys and values can need is at most a tag per this many bytes, as
// in <key name="a"></key>; files with fewer tags than kFewTags may be denser.
constexpr size_t kBytesPerTag = 10;
constexpr size_t kFewTags = 65536;

struct StringWriter : pugi::xml_writer {
  void write(const void* data, size_t size) override { bytes.append(static_cast<const char*>(data), size); }

  std::string bytes;
};

// pugixml tells a lack of memory by a null handle or false.
template <typename Result>
Result Allocated(Result result) {
  if (!result) throw std::bad_alloc();
  return result;
}

bool IsBlank(std::string_view text) { return text.find_first_not_of(kOxCFGWhiteSpace) == std::string_view::npos; }

bool IsTooDense(std::string_view bytes) {
  const auto tags = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '<'));
  return tags > std::max(bytes.size() / kBytesPerTag, kFewTags);
}

bool IsName(std::string_view name) {
  return !name.empty() && name.size() <= oxCFGStore::kMaxNameBytes && name.find('\\') == std::string_view::npos &&
         oxCFGFindControl(name) == std::string_view::npos;
}

// Takes the next name off a path; false at its end.
bool TakeName(std::string_view* path, std::string_view* name) {
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

// Entities of a file's own are not expanded, so a save would take references to them for text.
bool DeclaresEntities(pugi::xml_node node) {
  return node.type() == pugi::node_doctype && std::string_view(node.value()).find("<!ENTITY") != std::string_view::npos;
}

std::string LineStart(int depth) { return "\n" + std::string(static_cast<size_t>(depth) * 2, ' '); }

}  // namespace

// The walk is not recursive: how deep elements nest is the file's choice.
class oxCFGStore::Indexer : public pugi::xml_tree_walker {
 public:
  explicit Indexer(oxCFGStore* store) : store_(*store) {}

  bool for_each(pugi::xml_node& node) override {
    if (node.type() == pugi::node_element && depth() >= kMaxDepth) {
      return store_.Refuse("elements nested more than 64 deep", node.offset_debug());
    }
    return store_.Enter(node);
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

// Comments inside stay. The new text comes first, so that a lack of memory does not lose the old one.
void oxCFGStore::SetText(pugi::xml_node value, const std::string& text) {
  pugi::xml_node added;
  if (!text.empty()) {
    added = Allocated(value.append_child(pugi::node_pcdata));
    if (!added.set_value(oxCFGEncoded(text, oxCFGPlace::kElement).c_str())) {
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
  has_byte_order_mark_ = saved_.starts_with(kByteOrderMark);
  const std::string_view text = std::string_view(saved_).substr(MarkSize());
  return Parse(IsBlank(text) ? kEmptyStore : text);
}

size_t oxCFGStore::OffsetOf(pugi::xml_node element) const {
  return MarkSize() + static_cast<size_t>(element.offset_debug()) -
         1;  // offset_debug() points at the name, behind "<".
}

bool oxCFGStore::AddKey(std::string_view key) {
  if (KeyExists(key)) return true;
  int names = 0;
  std::string_view name;
  for (std::string_view path = key; TakeName(&path, &name); ++names) {
    if (!IsName(name)) return false;
  }
  if (names + 2 > kMaxDepth) return false;  // The root above, and a value below.
  pugi::xml_node parent = root_.node;
  while (TakeName(&key, &name)) {
    const Item* const child = Find(parent, oxCFGKind::kKey, name);
    parent = child != nullptr ? child->node : Append(parent, oxCFGKind::kKey, name);
  }
  return true;
}

bool oxCFGStore::Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind) {
  const Item* const parent = FindKey(key);
  if (parent == nullptr) return false;
  pugi::xml_node& cursor = parent->cursor;
  const std::optional<Entry> last = cursor ? EntryOf(cursor) : std::nullopt;
  if (!previous.empty() && (!last || last->name != previous)) cursor = FindLast(parent->node, previous);
  pugi::xml_node node = previous.empty() ? parent->node.first_child() : cursor.next_sibling();
  for (; node; node = node.next_sibling()) {
    const std::optional<Entry> entry = EntryOf(node);
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
  const Item* const parent = FindKey(key);
  if (parent == nullptr) return false;
  const Item* const known = Find(parent->node, oxCFGKind::kValue, name);
  if (known != nullptr && Text(known->node) == text) return true;
  if (known == nullptr && (!IsName(name) || Depth(parent->node) >= kMaxDepth)) return false;
  SetText(known != nullptr ? known->node : Append(parent->node, oxCFGKind::kValue, name), text);
  dirty_ = true;
  return true;
}

bool oxCFGStore::Save() {
  if (refuses_save_) return false;
  if (!dirty_) return true;
  std::string bytes = Serialize();
  if (bytes != saved_ && !file_.Replace(bytes)) return false;
  saved_ = std::move(bytes);
  dirty_ = false;
  return true;
}

bool oxCFGStore::Parse(std::string_view bytes) {
  if (const size_t control = oxCFGFindControl(bytes); control != bytes.npos) {
    return Refuse("a control byte, which XML cannot hold", static_cast<ptrdiff_t>(control));
  }
  if (IsTooDense(bytes)) return Refuse("too much markup", 0);
  if (bytes.starts_with(kByteOrderMark)) return Refuse("a second byte order mark", 0);  // The parser would drop it.
  // Whatever encoding the file declares, its bytes are taken as they are.
  const auto parsed = document_.load_buffer(bytes.data(), bytes.size(), kParseOptions, pugi::encoding_utf8);
  if (!parsed) return Refuse(parsed.description(), parsed.offset);
  for (const pugi::xml_node node : document_.children()) {
    if (DeclaresEntities(node)) return Refuse("entities of the file's own", node.offset_debug());
    if (node.type() == pugi::node_cdata || (node.type() == pugi::node_pcdata && !IsBlank(node.value()))) {
      return Refuse("text outside the root element", node.offset_debug());
    }
    if (node.type() != pugi::node_element) continue;
    if (root_.node) return Refuse("a second root element", node.offset_debug());
    if (node.name() != "config"sv) return Refuse("a root element other than config", node.offset_debug());
    root_.node = node;
  }
  if (!root_.node) return Refuse("no element config", static_cast<ptrdiff_t>(bytes.size()));
  Indexer indexer(this);
  return document_.traverse(indexer);
}

// Adds the node to the index. Refuses what a save could not write as it is.
bool oxCFGStore::Enter(pugi::xml_node node) {
  const std::string_view text = node.value();
  if (node.type() == pugi::node_comment) {
    const size_t dashes = text.ends_with('-') ? std::min(text.find("--"), text.size() - 1) : text.find("--");
    if (dashes != text.npos) {
      return Refuse("a comment with -- inside", node.offset_debug() + static_cast<ptrdiff_t>(dashes));
    }
  } else if (node.type() == pugi::node_pcdata) {
    if (const size_t bad = oxCFGFindBadReference(text); bad != text.npos) {
      return Refuse(kBadReference, node.offset_debug() + static_cast<ptrdiff_t>(bad));
    }
  }
  if (!EnterAttributes(node)) return false;
  AddToIndex(node);
  return true;
}

bool oxCFGStore::EnterAttributes(pugi::xml_node node) {
  for (pugi::xml_attribute attribute : node.attributes()) {
    std::string_view raw = attribute.value();
    if (const size_t bad = oxCFGFindBadReference(raw); bad != raw.npos) {
      // The document is parsed in place, in one copy of the bytes.
      return Refuse(kBadReference, node.offset_debug() + (raw.data() + bad - node.name()));
    }
    if (raw.find('"') == raw.npos) continue;
    // It stands between apostrophes, and a save puts quotes there.
    std::string quoted;
    for (size_t quote; (quote = raw.find('"')) != raw.npos; raw.remove_prefix(quote + 1)) {
      quoted.append(raw.substr(0, quote)).append("&quot;");
    }
    Allocated(attribute.set_value(quoted.append(raw).c_str()));
  }
  return true;
}

bool oxCFGStore::Refuse(const char* reason, ptrdiff_t offset) {
  refusal_ = {reason, MarkSize() + static_cast<size_t>(std::max<ptrdiff_t>(offset, 0))};
  return false;
}

size_t oxCFGStore::MarkSize() const { return has_byte_order_mark_ ? kByteOrderMark.size() : 0; }

std::optional<oxCFGStore::Entry> oxCFGStore::EntryOf(pugi::xml_node node) const {
  const pugi::xml_attribute attribute = node.attribute("name");
  if (!attribute) return std::nullopt;
  const auto decoded = decoded_names_.find(node.internal_object());
  const std::string_view name = decoded == decoded_names_.end() ? attribute.value() : std::string_view(decoded->second);
  for (const oxCFGKind kind : {oxCFGKind::kKey, oxCFGKind::kValue}) {
    if (node.name() == std::string_view(kElementNames[static_cast<size_t>(kind)])) {
      return Entry{node.parent().internal_object(), kind, name};
    }
  }
  return std::nullopt;
}

void oxCFGStore::AddToIndex(pugi::xml_node node) {
  const std::string_view raw = node.attribute("name").value();
  if (raw.find('&') != raw.npos) decoded_names_.emplace(node.internal_object(), oxCFGDecoded(raw));
  const std::optional<Entry> entry = EntryOf(node);
  if (entry && IsName(entry->name)) index_.try_emplace(*entry, Item{node, index_.size()});
}

const oxCFGStore::Item* oxCFGStore::Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const {
  const auto found = index_.find(Entry{key.internal_object(), kind, name});
  return found == index_.end() ? nullptr : &found->second;
}

const oxCFGStore::Item* oxCFGStore::FindKey(std::string_view path) const {
  const Item* key = &root_;
  for (std::string_view name; key != nullptr && TakeName(&path, &name);) key = Find(key->node, oxCFGKind::kKey, name);
  return key;
}

// Where a sub-key and a value share the name, the later one, so that a walk always comes to its end.
pugi::xml_node oxCFGStore::FindLast(pugi::xml_node key, std::string_view name) const {
  const Item* const sub_key = Find(key, oxCFGKind::kKey, name);
  const Item* const value = Find(key, oxCFGKind::kValue, name);
  if (sub_key == nullptr || value == nullptr) {
    return sub_key != nullptr ? sub_key->node : value != nullptr ? value->node : pugi::xml_node();
  }
  return sub_key->order > value->order ? sub_key->node : value->node;
}

// On a line of its own before the parent's end tag.
pugi::xml_node oxCFGStore::Append(pugi::xml_node key, oxCFGKind kind, std::string_view name) {
  const int depth = Depth(key);
  pugi::xml_node tail = key.last_child();
  if (!IsText(tail) || !IsBlank(tail.value())) {
    tail = Allocated(key.append_child(pugi::node_pcdata));
    Allocated(tail.set_value(LineStart(depth - 1).c_str()));
  }
  pugi::xml_node line_start = Allocated(key.insert_child_before(pugi::node_pcdata, tail));
  Allocated(line_start.set_value(LineStart(depth).c_str()));
  pugi::xml_node node = Allocated(key.insert_child_before(kElementNames[static_cast<size_t>(kind)], tail));
  Allocated(Allocated(node.append_attribute("name")).set_value(oxCFGEncoded(name, oxCFGPlace::kAttribute).c_str()));
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
  if (has_byte_order_mark_) writer.bytes = kByteOrderMark;
  document_.save(writer, "", pugi::format_raw | pugi::format_no_declaration | pugi::format_no_escapes,
                 pugi::encoding_utf8);
  return std::move(writer.bytes);
}
