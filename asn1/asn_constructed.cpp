#include "asn1/asn_constructed.h"

#include <cstring>

#include "asn1/asn_ostream.h"
#include "asn1/internal/asn_dispatch.h"

// ---- Element list ----------------------------------------------------------

AsnObject* AsnElementList::Find(const char* name) const {
  int i = IndexOf(name);
  return i < 0 ? nullptr : m_items[static_cast<size_t>(i)].get();
}

int AsnElementList::IndexOf(const char* name) const {
  if (!name) return -1;
  for (size_t i = 0; i < m_items.size(); ++i)
    if (m_items[i]->GetAsnName().Equals(name)) return static_cast<int>(i);
  return -1;
}

AsnObject* AsnElementList::FindChecked(unsigned i) const {
  if (!m_hasList) return nullptr;
  if (i >= m_items.size()) throw MiOutOfRangeExp();
  return m_items[i].get();
}

void AsnElementList::Add(const AsnObject* e) {
  if (!e || e->GetAsnName().Empty()) throw MiInvalidArgumentExp();
  std::unique_ptr<AsnObject> c(e->Clone());
  m_hasList = true;
  m_items.push_back(std::move(c));
}

void AsnElementList::AddSpace(AsnObject* e) {
  std::unique_ptr<AsnObject> owned(e);
  if (!e) throw MiInvalidArgumentExp();
  m_hasList = true;
  m_items.push_back(std::move(owned));
}

void AsnElementList::Insert(unsigned i, const AsnObject* e) {
  if (!e || e->GetAsnName().Empty()) throw MiInvalidArgumentExp();
  if (i > m_items.size()) throw MiOutOfRangeExp();
  std::unique_ptr<AsnObject> c(e->Clone());
  m_hasList = true;
  m_items.insert(m_items.begin() + i, std::move(c));
}

void AsnElementList::Replace(unsigned i, const AsnObject* e) {
  if (!e) throw MiInvalidArgumentExp();
  if (i >= m_items.size()) throw MiOutOfRangeExp();
  m_items[i].reset(e->Clone());
}

void AsnElementList::Delete(unsigned i) {
  if (i >= m_items.size()) throw MiOutOfRangeExp();
  m_items.erase(m_items.begin() + i);
}

void AsnElementList::Clear() {
  m_items.clear();
}

void AsnElementList::CopyFrom(const AsnElementList& other) {
  std::vector<std::unique_ptr<AsnObject>> items;
  items.reserve(other.m_items.size());
  for (const auto& e : other.m_items) items.emplace_back(e->Clone());
  m_items.swap(items);
  m_hasList = other.m_hasList;
}

bool AsnElementList::EqualsContent(const AsnElementList& other) const {
  if (m_hasList != other.m_hasList || m_items.size() != other.m_items.size()) return false;
  for (size_t i = 0; i < m_items.size(); ++i)
    if (!m_items[i]->EqualsContent(other.m_items[i].get())) return false;
  return true;
}

namespace {

// Reset(null) of a structure: every element loses its value and presence.
void ClearElements(const AsnElementList& l) {
  for (unsigned i = 0; i < l.Size(); ++i) {
    l.At(i)->Reset(nullptr);
    l.At(i)->SetAsnPresent(false);
  }
}

unsigned IndexByName(const AsnElementList& l, const char* name) {
  if (!name) throw MiInvalidArgumentExp();
  int i = l.IndexOf(name);
  if (i < 0) throw AsnDataExp();
  return static_cast<unsigned>(i);
}

}  // namespace

// ---- SEQUENCE and SET ------------------------------------------------------

#define KV_STRUCTURE_IMPL(T, TagNumber)                                                         \
  T::T() {                                                                                      \
    SetAsnTag(ASN_TAG_CLASS_UNIVERSAL, ASN_TAG_MODE_NONE, ASN_TAG_FORM_CONSTRUCTED, TagNumber); \
  }                                                                                             \
  T::T(const T& o)                                                                              \
      : AsnObject(o), m_elements(o.m_elements), m_componentByteType(o.m_componentByteType) {}   \
  T& T::operator=(const T& o) {                                                                 \
    if (this != &o) {                                                                           \
      AsnObject::operator=(o);                                                                  \
      m_elements = o.m_elements;                                                                \
      m_componentByteType = o.m_componentByteType;                                              \
    }                                                                                           \
    return *this;                                                                               \
  }                                                                                             \
  T::~T() = default;                                                                            \
  void T::Reset(const AsnObject* other) {                                                       \
    if (other == this) return;                                                                  \
    if (!other) {                                                                               \
      ClearElements(m_elements);                                                                \
      return;                                                                                   \
    }                                                                                           \
    const T* o = dynamic_cast<const T*>(other);                                                 \
    if (!o) throw MiInvalidArgumentExp();                                                       \
    T::operator=(*o);                                                                           \
  }                                                                                             \
  bool T::EqualsContent(const AsnObject* other) const {                                         \
    if (!other) return false;                                                                   \
    if (other == this) return true;                                                             \
    const T* o = dynamic_cast<const T*>(other);                                                 \
    return o && m_elements.EqualsContent(o->m_elements);                                        \
  }                                                                                             \
  KV_DISPATCH_SLOTS(T)                                                                          \
  void T::Set(const char* name, const AsnObject* value) {                                       \
    if (!name || !value) throw MiInvalidArgumentExp();                                          \
    AsnObject* e = m_elements.Find(name);                                                       \
    if (!e) throw MiInvalidArgumentExp();                                                       \
    e->SetAsnValue(value);                                                                      \
  }                                                                                             \
  void T::AddElement(const AsnObject* e) {                                                      \
    m_elements.Add(e);                                                                          \
  }                                                                                             \
  void T::InsertElement(unsigned i, const AsnObject* e) {                                       \
    m_elements.Insert(i, e);                                                                    \
  }                                                                                             \
  void T::ReplaceElement(unsigned i, const AsnObject* e) {                                      \
    m_elements.Replace(i, e);                                                                   \
  }                                                                                             \
  void T::ReplaceElement(const char* name, const AsnObject* e) {                                \
    m_elements.Replace(IndexByName(m_elements, name), e);                                       \
  }                                                                                             \
  void T::DelElement(unsigned i) {                                                              \
    m_elements.Delete(i);                                                                       \
  }                                                                                             \
  void T::DelElement(const char* name) {                                                        \
    m_elements.Delete(IndexByName(m_elements, name));                                           \
  }                                                                                             \
  AsnObject* T::Element(const char* name) const {                                               \
    AsnObject* e = m_elements.Find(name);                                                       \
    if (!e) throw AsnDataExp();                                                                 \
    return e;                                                                                   \
  }

KV_STRUCTURE_IMPL(AsnSequence, ASN_TAG_SEQUENCE)
KV_STRUCTURE_IMPL(AsnSet, ASN_TAG_SET)
#undef KV_STRUCTURE_IMPL

void AsnSequence::AddCompleteData(const char* name, const AsnObject* value) {
  if (!name || !*name || !value) throw MiInvalidArgumentExp();
  std::unique_ptr<AsnObject> c(value->Clone());
  c->SetAsnName(name);
  c->SetAsnPresent(true);
  AddElementSpace(c.release());
}

// ---- CHOICE ----------------------------------------------------------------

AsnChoice::AsnChoice(const AsnChoice& o)
    : AsnObject(o), m_elements(o.m_elements), m_selected(o.m_selected) {}

AsnChoice& AsnChoice::operator=(const AsnChoice& o) {
  if (this != &o) {
    AsnObject::operator=(o);
    m_elements = o.m_elements;
    m_selected = o.m_selected;
  }
  return *this;
}

AsnChoice::~AsnChoice() = default;

void AsnChoice::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    if (m_selected >= 0) m_elements.At(static_cast<unsigned>(m_selected))->Reset(nullptr);
    m_selected = -1;
    return;
  }
  const AsnChoice* o = dynamic_cast<const AsnChoice*>(other);
  if (!o) throw MiInvalidArgumentExp();
  *this = *o;
}

bool AsnChoice::EqualsContent(const AsnObject* other) const {
  if (!other) return false;
  if (other == this) return true;
  const AsnChoice* o = dynamic_cast<const AsnChoice*>(other);
  if (!o || o->m_selected != m_selected || o->Size() != Size()) return false;
  if (m_selected < 0) return true;
  return Get()->EqualsContent(o->Get());
}

KV_DISPATCH_SLOTS(AsnChoice)

void AsnChoice::AddElement(const AsnObject* e) {
  m_elements.Add(e);
}

void AsnChoice::DelElement(unsigned i) {
  if (i >= Size()) throw MiOutOfRangeExp();
  if (m_selected == static_cast<int>(i))
    m_selected = -1;
  else if (m_selected > static_cast<int>(i))
    --m_selected;
  m_elements.Delete(i);
}

void AsnChoice::DelElement(const char* name) {
  DelElement(IndexByName(m_elements, name));
}

void AsnChoice::ReplaceElement(unsigned i, const AsnObject* e) {
  m_elements.Replace(i, e);
}

void AsnChoice::ReplaceElement(const char* name, const AsnObject* e) {
  m_elements.Replace(IndexByName(m_elements, name), e);
}

void AsnChoice::ClearAllElements() {
  m_elements.Clear();
  m_selected = -1;
}

void AsnChoice::Set(const char* name) {
  m_selected = static_cast<int>(IndexByName(m_elements, name));
}

void AsnChoice::Set(const char* name, const AsnObject* value) {
  unsigned i = IndexByName(m_elements, name);
  AsnObject* alt = m_elements.At(i);
  if (value && value != alt) alt->SetAsnValue(value);
  alt->SetAsnPresent(true);
  m_selected = static_cast<int>(i);
}

AsnObject* AsnChoice::Get(const char* name) const {
  int i = m_elements.IndexOf(name);
  return (i >= 0 && i == m_selected) ? m_elements.At(static_cast<unsigned>(i)) : nullptr;
}

AsnObject* AsnChoice::Get(unsigned i) const {
  if (i >= Size()) throw MiOutOfRangeExp();
  return static_cast<int>(i) == m_selected ? m_elements.At(i) : nullptr;
}

AsnObject* AsnChoice::Element(const char* name) const {
  AsnObject* e = m_elements.Find(name);
  if (!e) throw AsnDataExp();
  return e;
}

// ---- Container -------------------------------------------------------------

AsnContainer::AsnContainer(const AsnObject& data) : m_data(data.Clone()) {}

AsnContainer::AsnContainer(const AsnContainer& o)
    : AsnObject(o), m_data(o.m_data ? o.m_data->Clone() : nullptr) {}

AsnContainer& AsnContainer::operator=(const AsnContainer& o) {
  if (this != &o) {
    AsnObject::operator=(o);
    m_data.reset(o.m_data ? o.m_data->Clone() : nullptr);
  }
  return *this;
}

AsnContainer::~AsnContainer() = default;

void AsnContainer::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    if (m_data) m_data->Reset(nullptr);
    return;
  }
  const AsnContainer* o = dynamic_cast<const AsnContainer*>(other);
  if (!o) throw MiInvalidArgumentExp();
  *this = *o;
}

bool AsnContainer::EqualsContent(const AsnObject* other) const {
  if (!other) return false;
  if (other == this) return true;
  const AsnContainer* o = dynamic_cast<const AsnContainer*>(other);
  if (!o) return false;
  if (!m_data || !o->m_data) return !m_data && !o->m_data;
  return m_data->EqualsContent(o->m_data.get());
}

KV_DISPATCH_SLOTS(AsnContainer)

void AsnContainer::SetData(const AsnObject* data) {
  m_data.reset(data ? data->Clone() : nullptr);
}

void AsnContainer::SetDataSpace(AsnObject* data) {
  m_data.reset(data);
}

// ---- SEQUENCE OF / SET OF support ------------------------------------------

namespace kv_asn {
void DumpList(const AsnObject& obj, const char* label, std::ostream& os, unsigned indent,
              const AsnObject* const* items, unsigned count) {
  AsnOstream::WriteHead(obj, os, indent);
  os << label;
  if (count == 0) {
    os << "{}";
    return;
  }
  os << "{\n";
  for (unsigned i = 0; i < count; ++i) {
    if (i) os << "\n";
    items[i]->ToOstream(os, indent + 1);
  }
  os << " }";
}
}  // namespace kv_asn

void AsnContainer::SetValue(const AsnObject* value) {
  if (!value) throw MiInvalidArgumentExp();
  if (!m_data)
    m_data.reset(value->Clone());
  else
    m_data->SetAsnValue(value);
  m_data->SetAsnPresent(true);
  SetAsnPresent(true);
}
