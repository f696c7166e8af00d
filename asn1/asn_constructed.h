// Constructed ASN.1 types: SEQUENCE, SET, CHOICE, explicit-tag containers and
// the SEQUENCE OF / SET OF templates.
#pragma once

#include <memory>
#include <vector>

#include "asn1/asn_der.h"
#include "asn1/asn_object.h"

// The owned, ordered element list shared by AsnSequence, AsnSet and AsnChoice.
class AsnElementList {
 public:
  AsnElementList() = default;
  AsnElementList(const AsnElementList& other) { CopyFrom(other); }
  AsnElementList& operator=(const AsnElementList& other) {
    if (this != &other) CopyFrom(other);
    return *this;
  }

  bool HasList() const { return m_hasList; }
  void CreateList() { m_hasList = true; }
  unsigned Size() const { return static_cast<unsigned>(m_items.size()); }
  bool Empty() const { return m_items.empty(); }
  AsnObject* At(unsigned i) const { return m_items[i].get(); }
  // Element of that name or null.
  AsnObject* Find(const char* name) const;
  // Index of the element of that name, or -1.
  int IndexOf(const char* name) const;
  // Checked index access: MiOutOfRangeExp past the end, null without a list.
  AsnObject* FindChecked(unsigned i) const;

  void Add(const AsnObject* e);  // clone appended; checks name
  void AddSpace(AsnObject* e);   // takes ownership
  void Insert(unsigned i, const AsnObject* e);
  void Replace(unsigned i, const AsnObject* e);
  void Delete(unsigned i);
  void Clear();
  void CopyFrom(const AsnElementList& other);
  bool EqualsContent(const AsnElementList& other) const;

 private:
  std::vector<std::unique_ptr<AsnObject>> m_items;
  bool m_hasList = false;
};

class AsnSequence : public AsnObject {
 public:
  AsnSequence();
  AsnSequence(const AsnSequence& other);
  AsnSequence& operator=(const AsnSequence& other);
  ~AsnSequence() override;

  void Reset(const AsnObject* other) override;
  bool EqualsContent(const AsnObject* other) const override;
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override;
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  unsigned Size() const { return m_elements.Size(); }
  bool Empty() const { return m_elements.Empty(); }
  AsnObject* Find(const char* name) { return m_elements.Find(name); }
  AsnObject* Find(unsigned i) { return m_elements.FindChecked(i); }
  const AsnObject* Get(const char* name) const { return m_elements.Find(name); }
  const AsnObject* Get(unsigned i) const { return m_elements.FindChecked(i); }
  void Set(const char* name, const AsnObject* value);
  void AddElement(const AsnObject* e);
  void InsertElement(unsigned i, const AsnObject* e);
  void ReplaceElement(unsigned i, const AsnObject* e);
  void ReplaceElement(const char* name, const AsnObject* e);
  void DelElement(unsigned i);
  void DelElement(const char* name);
  void ClearAllElements() { m_elements.Clear(); }
  // Appends a present element of that name holding a copy of value.
  void AddCompleteData(const char* name, const AsnObject* value);

  void OnComponentByte() { m_componentByteType = ASN_BYTE_WHOLE; }
  void OnComponentContentByte() { m_componentByteType = ASN_BYTE_CONTENT; }
  void OffComponentByte() { m_componentByteType = ASN_BYTE_NONE; }
  void OffComponentContentByte() { m_componentByteType = ASN_BYTE_NONE; }
  ASN_BYTE_TYPE GetComponentByteType() const { return m_componentByteType; }

  // For the generated types: the element of that name, or AsnDataExp.
  AsnObject* Element(const char* name) const;
  // The element of that name when it is present, null when absent; AsnDataExp
  // for a name the structure does not have.
  AsnObject* GetIfPresent(const char* name) const {
    AsnObject* e = Element(name);
    return e->IsAsnPresent() ? e : nullptr;
  }
  // For the visitors.
  const AsnElementList& Elements() const { return m_elements; }
  AsnElementList& Elements() { return m_elements; }

 protected:
  virtual void SetupElements() {}
  // Takes ownership of e (for SetupElements).
  void AddElementSpace(AsnObject* e) {
    m_elements.CreateList();
    m_elements.AddSpace(e);
  }

 private:
  AsnElementList m_elements;
  ASN_BYTE_TYPE m_componentByteType = ASN_BYTE_NONE;
};

class AsnSet : public AsnObject {
 public:
  AsnSet();
  AsnSet(const AsnSet& other);
  AsnSet& operator=(const AsnSet& other);
  ~AsnSet() override;

  void Reset(const AsnObject* other) override;
  bool EqualsContent(const AsnObject* other) const override;
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override;
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  unsigned Size() const { return m_elements.Size(); }
  bool Empty() const { return m_elements.Empty(); }
  AsnObject* Find(const char* name) { return m_elements.Find(name); }
  AsnObject* Find(unsigned i) { return m_elements.FindChecked(i); }
  const AsnObject* Get(const char* name) const { return m_elements.Find(name); }
  const AsnObject* Get(unsigned i) const { return m_elements.FindChecked(i); }
  void Set(const char* name, const AsnObject* value);
  void AddElement(const AsnObject* e);
  void InsertElement(unsigned i, const AsnObject* e);
  void ReplaceElement(unsigned i, const AsnObject* e);
  void ReplaceElement(const char* name, const AsnObject* e);
  void DelElement(unsigned i);
  void DelElement(const char* name);
  void ClearAllElements() { m_elements.Clear(); }

  void OnComponentDerByte() { m_componentByteType = ASN_BYTE_WHOLE; }
  void OnComponentDerContentByte() { m_componentByteType = ASN_BYTE_CONTENT; }
  void OffComponentDerByte() { m_componentByteType = ASN_BYTE_NONE; }
  void OffComponentDerContentByte() { m_componentByteType = ASN_BYTE_NONE; }
  ASN_BYTE_TYPE GetComponentByteType() const { return m_componentByteType; }

  AsnObject* Element(const char* name) const;
  AsnObject* GetIfPresent(const char* name) const {
    AsnObject* e = Element(name);
    return e->IsAsnPresent() ? e : nullptr;
  }
  const AsnElementList& Elements() const { return m_elements; }
  AsnElementList& Elements() { return m_elements; }

 protected:
  virtual void SetupElements() {}
  void AddElementSpace(AsnObject* e) {
    m_elements.CreateList();
    m_elements.AddSpace(e);
  }

 private:
  AsnElementList m_elements;
  ASN_BYTE_TYPE m_componentByteType = ASN_BYTE_NONE;
};

class AsnChoice : public AsnObject {
 public:
  AsnChoice() = default;
  AsnChoice(const AsnChoice& other);
  AsnChoice& operator=(const AsnChoice& other);
  ~AsnChoice() override;

  void Reset(const AsnObject* other) override;
  bool EqualsContent(const AsnObject* other) const override;
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override;
  bool IsAsnChoice() const override { return true; }
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  unsigned Size() const { return m_elements.Size(); }
  bool Empty() const { return m_elements.Empty(); }
  void AddElement(const AsnObject* e);
  void DelElement(unsigned i);
  void DelElement(const char* name);
  void ReplaceElement(unsigned i, const AsnObject* e);
  void ReplaceElement(const char* name, const AsnObject* e);
  void ClearAllElements();
  AsnObject* Find(const char* name) { return m_elements.Find(name); }
  AsnObject* Find(unsigned i) { return m_elements.FindChecked(i); }

  // Selects the alternative of that name (null: MiInvalidArgumentExp,
  // unknown: AsnDataExp).
  void Set(const char* name);
  // Same lookup; the alternative takes a copy of value and becomes the selection.
  void Set(const char* name, const AsnObject* value);
  // Selected alternative or null.
  AsnObject* Get() const { return m_selected < 0 ? nullptr : m_elements.At(m_selected); }
  // That alternative only if it is the selected one.
  AsnObject* Get(const char* name) const;
  AsnObject* Get(unsigned i) const;
  // Index of the selection, -1 when none.
  int GetSelectedIndex() const { return m_selected; }
  void SelectIndex(int i) { m_selected = i; }
  // Clears the selection.
  void Unselect() { m_selected = -1; }

  // For the generated types: the alternative of that name, or AsnDataExp.
  AsnObject* Element(const char* name) const;
  const AsnElementList& Elements() const { return m_elements; }

 protected:
  virtual void SetupElements() {}
  void AddElementSpace(AsnObject* e) {
    m_elements.CreateList();
    m_elements.AddSpace(e);
  }

 private:
  AsnElementList m_elements;
  int m_selected = -1;
};

// An explicitly tagged element: the container bears the explicit tag, the
// data is the inner value with its own tag.
class AsnContainer : public AsnObject {
 public:
  AsnContainer() = default;
  // Takes a clone of data.
  explicit AsnContainer(const AsnObject& data);
  AsnContainer(const AsnContainer& other);
  AsnContainer& operator=(const AsnContainer& other);
  ~AsnContainer() override;

  void Reset(const AsnObject* other) override;
  bool EqualsContent(const AsnObject* other) const override;
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override;
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  void SetData(const AsnObject* data);
  void SetDataSpace(AsnObject* data);
  // Copies value into the data object (keeping the data's name and tag, see
  // AsnObject::SetAsnValue; a clone when there is no data object yet) and
  // marks data and container present. Null value: MiInvalidArgumentExp.
  void SetValue(const AsnObject* value);
  AsnObject* GetData() const { return m_data.get(); }
  AsnObject* Data() const { return m_data.get(); }

 private:
  std::unique_ptr<AsnObject> m_data;
};

// Shared, non-template parts of the SEQUENCE OF / SET OF templates.
namespace kv_asn {
// make appends a new value to list and returns it; reserve (may be null) is
// first told how many values the content appears to hold.
unsigned DecodeListContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length,
                           AsnObject* (*make)(void*), void* list,
                           void (*reserve)(void*, unsigned) = nullptr);
void DumpList(const AsnObject& obj, const char* label, std::ostream& os, unsigned indent,
              const AsnObject* const* items, unsigned count);
}  // namespace kv_asn

// SEQUENCE OF T / SET OF T: an ordered list of owned T values. Decoding reads
// one value per contained encoding; SET OF sorts the encodings on output.
template <class T, bool IsSet>
class AsnListOf : public AsnObject {
 public:
  AsnListOf() {
    SetAsnTag(ASN_TAG_CLASS_UNIVERSAL, ASN_TAG_MODE_NONE, ASN_TAG_FORM_CONSTRUCTED,
              IsSet ? ASN_TAG_SET : ASN_TAG_SEQUENCE);
  }
  AsnListOf(const AsnListOf& other) : AsnObject(other) { CopyValues(other); }
  AsnListOf& operator=(const AsnListOf& other) {
    if (this != &other) {
      SetAsnBaseData(&other);
      CopyValues(other);
    }
    return *this;
  }
  ~AsnListOf() override = default;

  void Reset(const AsnObject* other) override {
    if (other == this) return;
    if (!other) {
      m_values.clear();
      return;
    }
    const AsnListOf* o = dynamic_cast<const AsnListOf*>(other);
    if (!o) throw MiInvalidArgumentExp();
    SetAsnBaseData(o);
    CopyValues(*o);
  }
  bool EqualsContent(const AsnObject* other) const override {
    if (!other) return false;
    if (other == this) return true;
    const AsnListOf* o = dynamic_cast<const AsnListOf*>(other);
    if (!o || o->m_values.size() != m_values.size()) return false;
    for (size_t i = 0; i < m_values.size(); ++i)
      if (!m_values[i]->EqualsContent(o->m_values[i].get())) return false;
    return true;
  }
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override {
    return kv_asn::EncodeObject(e, *this, out, pos);
  }
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override {
    out.SetLength(pos);
    if (this->GetAsnByteType() == ASN_BYTE_CONTENT) {  // else no call at all
      unsigned written = 0;
      if (kv_asn::EncodeSavedContent(*this, out, pos, written)) return written;
    }
    if (!IsSet || m_values.size() < 2) {
      for (const auto& v : m_values) v->Encode(e, out, out.GetLength());
    } else {
      std::vector<unsigned> sizes(m_values.size());
      for (size_t i = 0; i < m_values.size(); ++i)
        sizes[i] = m_values[i]->Encode(e, out, out.GetLength());
      kv_asn::SortSetOfEncodings(out, pos, sizes.data(), static_cast<unsigned>(sizes.size()));
    }
    return out.GetLength() - pos;
  }
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override {
    return kv_asn::DecodeObject(d, *this, in, pos);
  }
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override {
    m_values.clear();
    if (this->GetAsnByteType() == ASN_BYTE_CONTENT) {
      kv_asn::CheckContent(in, pos, length);
      this->SetAsnContentByte(in.GetChars(), pos, length);
      return length;
    }
    return kv_asn::DecodeListContent(d, in, pos, length, &AsnListOf::MakeValue, this,
                                     &AsnListOf::ReserveValues);
  }
  AsnObject* Clone() const override { return new AsnListOf(*this); }
  void ToOstream(std::ostream& os, unsigned indent) const override {
    std::vector<const AsnObject*> items;
    items.reserve(m_values.size());
    for (const auto& v : m_values) items.push_back(v.get());
    kv_asn::DumpList(*this, IsSet ? "SET : " : "SEQUENCE : ", os, indent, items.data(),
                     static_cast<unsigned>(items.size()));
  }

  unsigned Size() const { return static_cast<unsigned>(m_values.size()); }
  bool Empty() const { return m_values.empty(); }
  // MiOutOfRangeExp when i >= Size().
  T* Get(unsigned i) {
    if (i >= m_values.size()) throw MiOutOfRangeExp();
    return m_values[i].get();
  }
  const T* Get(unsigned i) const {
    if (i >= m_values.size()) throw MiOutOfRangeExp();
    return m_values[i].get();
  }
  T& operator[](unsigned i) { return *Get(i); }
  const T& operator[](unsigned i) const { return *Get(i); }
  // Appends a deep copy; returns the stored value.
  T* Add(const T& value) {
    m_values.emplace_back(new T(value));
    return m_values.back().get();
  }
  // Appends a default value; returns it for filling in.
  T* AddNew() {
    m_values.emplace_back(new T());
    return m_values.back().get();
  }
  // Inserts a deep copy before position i (i == Size() appends).
  void Insert(unsigned i, const T& value) {
    if (i > m_values.size()) throw MiOutOfRangeExp();
    m_values.emplace(m_values.begin() + i, new T(value));
  }
  void Remove(unsigned i) {
    if (i >= m_values.size()) throw MiOutOfRangeExp();
    m_values.erase(m_values.begin() + i);
  }
  void Clear() { m_values.clear(); }

 private:
  static void ReserveValues(void* self, unsigned n) {
    static_cast<AsnListOf*>(self)->m_values.reserve(n);
  }
  static AsnObject* MakeValue(void* self) {
    auto* list = static_cast<AsnListOf*>(self);
    list->m_values.emplace_back(new T());
    return list->m_values.back().get();
  }
  void CopyValues(const AsnListOf& other) {
    std::vector<std::unique_ptr<T>> copy;
    copy.reserve(other.m_values.size());
    for (const auto& v : other.m_values) copy.emplace_back(new T(*v));
    m_values.swap(copy);
  }

  std::vector<std::unique_ptr<T>> m_values;
};

template <class T>
class AsnSequenceOf : public AsnListOf<T, false> {
 public:
  AsnSequenceOf() = default;
  AsnSequenceOf(const AsnSequenceOf&) = default;
  AsnSequenceOf& operator=(const AsnSequenceOf&) = default;
  AsnObject* Clone() const override { return new AsnSequenceOf(*this); }
};

template <class T>
class AsnSetOf : public AsnListOf<T, true> {
 public:
  AsnSetOf() = default;
  AsnSetOf(const AsnSetOf&) = default;
  AsnSetOf& operator=(const AsnSetOf&) = default;
  AsnObject* Clone() const override { return new AsnSetOf(*this); }
};
