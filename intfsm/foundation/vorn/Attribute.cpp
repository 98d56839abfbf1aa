#include "intfsm/foundation/vorn/Attribute.h"

#include <map>
#include <typeindex>

#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

namespace {
// Tables by type name; each table is a static object that outlives every use.
std::map<std::string, AttributeTable const *, std::less<>> & tables() {
  static std::map<std::string, AttributeTable const *, std::less<>> byName;
  return byName;
}
std::map<std::type_index, AttributeTable const *> & tablesByType() {
  static std::map<std::type_index, AttributeTable const *> byType;
  return byType;
}
}  // namespace

char const * attributeKindName(AttributeKind k) {
  switch (k) {
    case AttributeKind::scalar: return "scalar";
    case AttributeKind::collection: return "collection";
    case AttributeKind::instantiating: return "instantiating";
    case AttributeKind::callable: return "callable";
  }
  return "?";
}

AttributeTable::~AttributeTable() {
  auto it = tables().find(typeName_);
  if (it != tables().end() && it->second == this) tables().erase(it);
  for (auto t = tablesByType().begin(); t != tablesByType().end();) {
    t = t->second == this ? tablesByType().erase(t) : std::next(t);
  }
}

AttributeTable const * AttributeTable::of(std::string_view typeName) {
  auto it = tables().find(typeName);
  return it == tables().end() ? nullptr : it->second;
}

AttributeTable const * AttributeTable::of(Notifier const & n) {
  if (auto const * e = dynamic_cast<Entity const *>(&n)) return of(e->vornTypeName());
  auto it = tablesByType().find(std::type_index(typeid(n)));
  return it == tablesByType().end() ? nullptr : it->second;
}

void AttributeTable::tableIsComplete(std::type_info const & type) {
  tables()[typeName_] = this;
  tablesByType()[std::type_index(type)] = this;
}

AttributeTable::Entry & AttributeTable::entryNew(char const * name, AttributeKind kind) {
  Entry & en = entries_.emplace_back();
  en.info.name = name;
  en.info.kind = kind;
  en.info.number = uint32_t(entries_.size() - 1);
  return en;
}

AttributeTable const * AttributeTable::base() const {
  if (!baseTypeName_) return nullptr;
  AttributeTable const * b = of(baseTypeName_);
  VORN_ASSERT(b != nullptr);
  return b;
}

uint32_t AttributeTable::size() const {
  AttributeTable const * b = base();
  return ownSize() + (b ? b->size() : 0);
}

std::vector<String> AttributeTable::ownNames() const {
  std::vector<String> out;
  out.reserve(entries_.size());
  for (Entry const & en : entries_) out.push_back(en.info.name);
  return out;
}

std::vector<String> AttributeTable::names() const {
  std::vector<String> out = ownNames();
  if (AttributeTable const * b = base()) {
    for (String const & name : b->names()) out.push_back(name);
  }
  return out;
}

// An inherited entry keeps its number in the base table: info() gives it the number it has here.
AttributeTable::Entry const & AttributeTable::entry(uint32_t n) const {
  if (n < entries_.size()) return entries_[n];
  AttributeTable const * b = base();
  if (!b || n - entries_.size() >= b->size()) {
    throw NoSuchAttributeException(std::string(typeName_) + " has no attribute number " + std::to_string(n));
  }
  return b->entry(n - uint32_t(entries_.size()));
}

AttributeInfo const & AttributeTable::info(uint32_t n) const { return entry(n).info; }

std::optional<uint32_t> AttributeTable::find(std::string_view name) const {
  for (Entry const & en : entries_) {
    if (en.info.name == name) return en.info.number;
  }
  if (AttributeTable const * b = base()) {
    if (auto n = b->find(name)) return *n + ownSize();
  }
  return std::nullopt;
}

uint32_t AttributeTable::number(std::string_view name) const {
  if (auto n = find(name)) return *n;
  throw NoSuchAttributeException(std::string(typeName_) + " has no attribute " + std::string(name));
}

void AttributeTable::lacks(Entry const & en, char const * operation) const {
  throw NoSuchAttributeException(std::string(typeName_) + "::" + en.info.name.stdString() + " (" +
                                 attributeKindName(en.info.kind) + ") has no " + operation);
}

void AttributeTable::notOfType(Notifier const & e) const {
  throw NoSuchAttributeException(std::string("the attributes of ") + typeName_ + " do not apply to " +
                                 objectTypeName(e));
}

Value AttributeTable::get(Notifier const & e, uint32_t n) const {
  Entry const & en = entry(n);
  if (!en.get) lacks(en, "value without a key");
  return en.get(e);
}

void AttributeTable::set(Notifier & e, uint32_t n, Value const & v) const {
  Entry const & en = entry(n);
  if (!en.set) lacks(en, "setter without a key");
  en.set(e, v);
}

void AttributeTable::del(Notifier & e, uint32_t n) const {
  Entry const & en = entry(n);
  if (!en.del) lacks(en, "deleter without a key");
  en.del(e);
}

Value AttributeTable::get(Notifier const & e, uint32_t n, Value const & key) const {
  Entry const & en = entry(n);
  if (!en.getKey) lacks(en, "keyed value");
  return en.getKey(e, key);
}

void AttributeTable::set(Notifier & e, uint32_t n, Value const & key, Value const & v) const {
  Entry const & en = entry(n);
  if (!en.setKey) lacks(en, "keyed setter");
  en.setKey(e, key, v);
}

void AttributeTable::del(Notifier & e, uint32_t n, Value const & key) const {
  Entry const & en = entry(n);
  if (!en.delKey) lacks(en, "keyed deleter");
  en.delKey(e, key);
}

uint32_t AttributeTable::count(Notifier const & e, uint32_t n) const {
  Entry const & en = entry(n);
  if (!en.count) lacks(en, "count");
  return en.count(e);
}

bool AttributeTable::contains(Notifier const & e, uint32_t n, Value const & key) const {
  Entry const & en = entry(n);
  if (!en.contains) lacks(en, "membership");
  return en.contains(e, key);
}

std::vector<Value> AttributeTable::keys(Notifier const & e, uint32_t n) const {
  Entry const & en = entry(n);
  if (!en.keys) lacks(en, "keys");
  return en.keys(e);
}

Value AttributeTable::call(Notifier & e, uint32_t n, Value::List const & args) const {
  Entry const & en = entry(n);
  if (!en.call) lacks(en, "call");
  return en.call(e, args);
}

namespace attribute_detail {
std::string argumentCountText(char const * type, String const & name, size_t wanted, size_t given) {
  return std::string(type) + "::" + name.stdString() + " takes " + std::to_string(wanted) + " argument" +
         (wanted == 1 ? "" : "s") + ", " + std::to_string(given) + " given";
}
}  // namespace attribute_detail

Attributes::Attributes(Ptr<Notifier> e) : e_(std::move(e)), table_(e_ ? AttributeTable::of(*e_) : nullptr) {
  if (!e_) throw NoSuchAttributeException("no attributes of a null object");
  if (!table_) throw NoSuchAttributeException(objectTypeName(*e_) + " has no attribute table");
}

}  // namespace Vorn
