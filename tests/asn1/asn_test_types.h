// Structures written the way generated PKI types are: a subclass of
// AsnSequence/AsnChoice that lists its elements in SetupElements. Used by the
// tests and the DER fuzz target.
#pragma once

#include "asn1/asn1.h"

// Time ::= CHOICE { utcTime UTCTime, generalTime GeneralizedTime }
class TestTime : public AsnChoice {
 public:
  TestTime() { SetupElements(); }
  TestTime(const TestTime& o) : AsnChoice(o) {}
  TestTime& operator=(const TestTime& o) {
    AsnChoice::operator=(o);
    return *this;
  }
  AsnObject* Clone() const override { return new TestTime(*this); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    AsnObject* u = new AsnUTCTime();
    u->SetAsnName("utcTime");
    AddElementSpace(u);
    AsnObject* g = new AsnGeneralizedTime();
    g->SetAsnName("generalTime");
    AddElementSpace(g);
  }
};

// Record ::= SEQUENCE {
//   version     [0] EXPLICIT INTEGER DEFAULT 0,
//   serial      INTEGER,
//   algorithm   OBJECT IDENTIFIER,
//   when        Time,
//   flags       [1] IMPLICIT BIT STRING OPTIONAL,
//   names       [2] IMPLICIT SEQUENCE OF IA5String OPTIONAL,
//   extra       [3] EXPLICIT SET OF OCTET STRING OPTIONAL,
//   parameters  ANY OPTIONAL }
class TestRecord : public AsnSequence {
 public:
  TestRecord() { SetupElements(); }
  TestRecord(const TestRecord& o) : AsnSequence(o) {}
  TestRecord& operator=(const TestRecord& o) {
    AsnSequence::operator=(o);
    return *this;
  }
  AsnObject* Clone() const override { return new TestRecord(*this); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    AsnContainer* version = new AsnContainer();
    version->SetAsnName("version");
    version->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 0);
    version->SetAsnState(ASN_STATE_DEFAULT);
    version->SetDataSpace(new AsnInteger());
    AddElementSpace(version);
    Add(new AsnInteger(), "serial");
    Add(new AsnOid(), "algorithm");
    Add(new TestTime(), "when");
    AsnBitString* flags = new AsnBitString();
    flags->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 1);
    flags->SetAsnState(ASN_STATE_OPTIONAL);
    Add(flags, "flags");
    auto* names = new AsnSequenceOf<AsnIA5String>();
    names->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 2);
    names->SetAsnState(ASN_STATE_OPTIONAL);
    Add(names, "names");
    AsnContainer* extra = new AsnContainer();
    extra->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 3);
    extra->SetAsnState(ASN_STATE_OPTIONAL);
    extra->SetDataSpace(new AsnSetOf<AsnOctetString>());
    Add(extra, "extra");
    AsnAny* params = new AsnAny();
    params->SetAsnState(ASN_STATE_OPTIONAL);
    Add(params, "parameters");
  }

 private:
  void Add(AsnObject* e, const char* name) {
    e->SetAsnName(name);
    AddElementSpace(e);
  }
};
