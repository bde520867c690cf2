#include "oxCFGStore.h"

#include <algorithm>
#include <functional>
#include <new>
#include <vector>

using namespace std::string_view_literals;

namespace {

// Everything is kept and nothing is normalized. As a fragment, text outside the root is kept too, to be refused.
constexpr unsigned kParseOptions = pugi::parse_pi | pugi::parse_comments | pugi::parse_declaration |
                                   pugi::parse_doctype | pugi::parse_cdata | pugi::parse_escapes |
                                   pugi::parse_ws_pcdata | pugi::parse_fragment;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // Of UTF-8.

constexpr std::string_view kEmptyStore = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config/>\n";

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

bool IsBlank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

bool IsTooDense(std::string_view bytes) {
  const auto tags = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '<'));
  return tags > std::max(bytes.size() / kBytesPerTag, kFewTags);
}

bool IsText(pugi::xml_node node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }

bool IsName(std::string_view name) {
  return !name.empty() && name.size() <= oxCFGStore::kMaxNameBytes && name.find('\\') == std::string_view::npos;
}

std::vector<std::string_view> Components(std::string_view path) {
  std::vector<std::string_view> names;
  while (!path.empty()) {
    const size_t size = std::min(path.find('\\'), path.size());
    if (size > 0) names.push_back(path.substr(0, size));
    path.remove_prefix(std::min(size + 1, path.size()));
  }
  return names;
}

int Depth(pugi::xml_node element) {
  int depth = 0;
  for (; element.type() == pugi::node_element; element = element.parent()) ++depth;
  return depth;
}

std::string Text(pugi::xml_node value) {
  std::string text;
  for (const pugi::xml_node child : value.children()) {
    if (IsText(child)) text += child.value();
  }
  return text;
}

// Comments inside stay. The new text comes first, so that a lack of memory does not lose the old one.
void SetText(pugi::xml_node value, const std::string& text) {
  pugi::xml_node added;
  if (!text.empty()) {
    added = Allocated(value.append_child(pugi::node_pcdata));
    if (!added.set_value(text.c_str())) {
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
      stop_ = node;
      return false;
    }
    store_.AddToIndex(node);
    return true;
  }

  pugi::xml_node Stop() const { return stop_; }  // Where the walk ended too early.

 private:
  oxCFGStore& store_;
  pugi::xml_node stop_;
};

size_t oxCFGStore::EntryHash::operator()(const Entry& entry) const {
  const size_t parent = std::hash<const void*>()(entry.parent) * 2 + static_cast<size_t>(entry.kind);
  return std::hash<std::string_view>()(entry.name) ^ (parent * 0x9E3779B97F4A7C15u);
}

bool oxCFGStore::Open(const char* path) {
  if (!file_.Read(path, &saved_)) return false;
  has_byte_order_mark_ = saved_.starts_with(kByteOrderMark);
  const std::string_view text = std::string_view(saved_).substr(MarkSize());
  return Parse(IsBlank(text) ? kEmptyStore : text);
}

size_t oxCFGStore::OffsetOf(pugi::xml_node element) const {
  return MarkSize() + static_cast<size_t>(element.offset_debug()) - 1;  // Of the name, behind "<".
}

bool oxCFGStore::AddKey(std::string_view key) {
  if (KeyExists(key)) return true;
  const std::vector<std::string_view> names = Components(key);
  if (names.size() + 2 > kMaxDepth) return false;  // The root above, and a value below.
  if (!std::all_of(names.begin(), names.end(), IsName)) return false;
  pugi::xml_node parent = root_;
  for (const std::string_view name : names) {
    const pugi::xml_node child = Find(parent, oxCFGKind::kKey, name);
    parent = child ? child : Append(parent, oxCFGKind::kKey, name);
  }
  return true;
}

bool oxCFGStore::Next(std::string_view key, std::string_view previous, std::string_view* name, oxCFGKind* kind) {
  const pugi::xml_node parent = FindKey(key);
  if (!parent) return false;
  pugi::xml_node& cursor = cursors_[parent.internal_object()];
  if (!previous.empty() && cursor.attribute("name").value() != previous) cursor = FindLast(parent, previous);
  pugi::xml_node node = previous.empty() ? parent.first_child() : cursor.next_sibling();
  for (; node; node = node.next_sibling()) {
    const std::optional<Entry> entry = EntryOf(node);
    if (!entry || !IsName(entry->name) || index_.at(*entry) != node) continue;
    cursor = node;
    *name = entry->name;
    *kind = entry->kind;
    return true;
  }
  return false;
}

std::optional<std::string> oxCFGStore::Get(std::string_view key, std::string_view name) const {
  const pugi::xml_node value = Find(FindKey(key), oxCFGKind::kValue, name);
  if (!value) return std::nullopt;
  return Text(value);
}

bool oxCFGStore::Set(std::string_view key, std::string_view name, const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;  // XML cannot hold it.
  const pugi::xml_node parent = FindKey(key);
  if (!parent) return false;
  pugi::xml_node value = Find(parent, oxCFGKind::kValue, name);
  if (value && Text(value) == text) return true;
  if (!value) {
    if (!IsName(name) || Depth(parent) >= kMaxDepth) return false;
    value = Append(parent, oxCFGKind::kValue, name);
  }
  SetText(value, text);
  dirty_ = true;
  return true;
}

bool oxCFGStore::Save() {
  if (!dirty_) return true;
  std::string bytes = Serialize();
  if (bytes != saved_ && !file_.Replace(bytes)) return false;
  saved_ = std::move(bytes);
  dirty_ = false;
  return true;
}

std::optional<oxCFGStore::Entry> oxCFGStore::EntryOf(pugi::xml_node node) {
  const pugi::xml_attribute name = node.attribute("name");
  if (!name) return std::nullopt;
  for (const oxCFGKind kind : {oxCFGKind::kKey, oxCFGKind::kValue}) {
    if (node.name() == std::string_view(kElementNames[static_cast<size_t>(kind)])) {
      return Entry{node.parent().internal_object(), kind, name.value()};
    }
  }
  return std::nullopt;
}

bool oxCFGStore::Parse(std::string_view bytes) {
  if (const size_t zero = bytes.find('\0'); zero != std::string_view::npos) {
    return Refuse("a zero byte", static_cast<ptrdiff_t>(zero));
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
    if (root_) return Refuse("a second root element", node.offset_debug());
    if (node.name() != "config"sv) return Refuse("a root element other than config", node.offset_debug());
    root_ = node;
  }
  if (!root_) return Refuse("no element config", static_cast<ptrdiff_t>(bytes.size()));
  Indexer indexer(this);
  return document_.traverse(indexer) || Refuse("elements nested more than 64 deep", indexer.Stop().offset_debug());
}

bool oxCFGStore::Refuse(const char* reason, ptrdiff_t offset) {
  refusal_ = {reason, MarkSize() + static_cast<size_t>(std::max<ptrdiff_t>(offset, 0))};
  return false;
}

size_t oxCFGStore::MarkSize() const { return has_byte_order_mark_ ? kByteOrderMark.size() : 0; }

void oxCFGStore::AddToIndex(pugi::xml_node node) {
  if (const std::optional<Entry> entry = EntryOf(node)) index_.try_emplace(*entry, node);
}

pugi::xml_node oxCFGStore::Find(pugi::xml_node key, oxCFGKind kind, std::string_view name) const {
  const auto found = index_.find(Entry{key.internal_object(), kind, name});
  return found == index_.end() ? pugi::xml_node() : found->second;
}

pugi::xml_node oxCFGStore::FindKey(std::string_view path) const {
  pugi::xml_node key = root_;
  for (const std::string_view name : Components(path)) key = Find(key, oxCFGKind::kKey, name);
  return key;
}

// Where a sub-key and a value share the name, the later one, so that a walk always comes to its end.
pugi::xml_node oxCFGStore::FindLast(pugi::xml_node key, std::string_view name) const {
  const pugi::xml_node sub_key = Find(key, oxCFGKind::kKey, name);
  const pugi::xml_node value = Find(key, oxCFGKind::kValue, name);
  if (!sub_key || !value) return sub_key ? sub_key : value;
  for (pugi::xml_node node = sub_key; node; node = node.next_sibling()) {
    if (node == value) return value;
  }
  return sub_key;
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
  Allocated(Allocated(node.append_attribute("name")).set_value(std::string(name).c_str()));
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
  document_.save(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
  return std::move(writer.bytes);
}
