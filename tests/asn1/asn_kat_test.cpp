// Generic driver for the known answers of the primitive types in
// tests/data/asn1/primitives.kat.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "asn_test_util.h"

using namespace asntest;

namespace {

std::string Trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t");
  if (a == std::string::npos) return "";
  size_t b = s.find_last_not_of(" \t\r");
  return s.substr(a, b - a + 1);
}

std::unique_ptr<AsnObject> Make(const std::string& type) {
  static const std::map<std::string, AsnObject* (*)()> makers = {
      {"BOOLEAN", [] { return static_cast<AsnObject*>(new AsnBoolean()); }},
      {"INTEGER", [] { return static_cast<AsnObject*>(new AsnInteger()); }},
      {"ENUMERATED", [] { return static_cast<AsnObject*>(new AsnEnumerated()); }},
      {"BIT STRING", [] { return static_cast<AsnObject*>(new AsnBitString()); }},
      {"OCTET STRING", [] { return static_cast<AsnObject*>(new AsnOctetString()); }},
      {"NULL", [] { return static_cast<AsnObject*>(new AsnNull()); }},
      {"OBJECT IDENTIFIER", [] { return static_cast<AsnObject*>(new AsnOid()); }},
      {"PrintableString", [] { return static_cast<AsnObject*>(new AsnPrintableString()); }},
      {"NumericString", [] { return static_cast<AsnObject*>(new AsnNumericString()); }},
      {"VisibleString", [] { return static_cast<AsnObject*>(new AsnVisibleString()); }},
      {"IA5String", [] { return static_cast<AsnObject*>(new AsnIA5String()); }},
      {"TeletexString", [] { return static_cast<AsnObject*>(new AsnTeletexString()); }},
      {"UTF8String", [] { return static_cast<AsnObject*>(new AsnUTF8String()); }},
      {"BMPString", [] { return static_cast<AsnObject*>(new AsnBMPString()); }},
      {"UniversalString", [] { return static_cast<AsnObject*>(new AsnUniversalString()); }},
      {"UTCTime", [] { return static_cast<AsnObject*>(new AsnUTCTime()); }},
      {"GeneralizedTime", [] { return static_cast<AsnObject*>(new AsnGeneralizedTime()); }},
  };
  auto it = makers.find(type);
  if (it == makers.end()) return nullptr;
  return std::unique_ptr<AsnObject>(it->second());
}

void SetValue(AsnObject& obj, const std::string& text) {
  const bool empty = text == "-";
  const char* t = empty ? "" : text.c_str();
  if (auto* o = dynamic_cast<AsnBoolean*>(&obj)) o->SetData(text == "true");
  if (auto* o = dynamic_cast<AsnInteger*>(&obj)) o->SetData(MiBigInteger::FromString(t));
  if (auto* o = dynamic_cast<AsnEnumerated*>(&obj)) o->SetData(std::stoi(text));
  if (auto* o = dynamic_cast<AsnBitString*>(&obj)) o->SetData(MiBitSet(t));
  if (auto* o = dynamic_cast<AsnOctetString*>(&obj)) o->SetData(Bytes(t));
  if (auto* o = dynamic_cast<AsnOid*>(&obj)) o->SetData(t);
  if (auto* o = dynamic_cast<AsnNarrowString*>(&obj)) o->SetData(t);
  if (auto* o = dynamic_cast<AsnWideString*>(&obj)) o->SetUtf8(t);
  if (auto* o = dynamic_cast<AsnUTCTime*>(&obj)) o->SetTime(t);
  if (auto* o = dynamic_cast<AsnGeneralizedTime*>(&obj)) o->SetTime(t);
}

std::string ValueText(const AsnObject& obj) {
  std::string s;
  if (auto* o = dynamic_cast<const AsnBoolean*>(&obj)) s = o->GetData() ? "true" : "false";
  if (auto* o = dynamic_cast<const AsnInteger*>(&obj)) s = o->GetData().ToStdString(10);
  if (auto* o = dynamic_cast<const AsnEnumerated*>(&obj)) s = std::to_string(o->GetData());
  if (auto* o = dynamic_cast<const AsnBitString*>(&obj)) s = o->GetData().GetBitsString();
  if (auto* o = dynamic_cast<const AsnOctetString*>(&obj)) s = Hex(o->GetData());
  if (auto* o = dynamic_cast<const AsnOid*>(&obj)) s = o->GetData();
  if (auto* o = dynamic_cast<const AsnNarrowString*>(&obj)) s = o->GetData();
  if (auto* o = dynamic_cast<const AsnWideString*>(&obj)) s = o->GetUtf8();
  if (auto* o = dynamic_cast<const AsnUTCTime*>(&obj)) s = o->GetTimeString();
  if (auto* o = dynamic_cast<const AsnGeneralizedTime*>(&obj)) s = o->GetTimeString();
  return s.empty() ? "-" : s;
}

std::string MessageOf(const std::string& cls) {
  static const std::map<std::string, std::string> messages = {
      {"MiInvalidArgumentExp", "invalid argument exp"},
      {"MiOutOfRangeExp", "out of range exp"},
      {"MiRangeExp", "range exp"},
      {"AsnDataExp", "asn data exception"},
      {"AsnDecodeExp", "asn decode exception"},
      {"AsnEncodeExp", "asn encode exception"}};
  auto it = messages.find(cls);
  return it == messages.end() ? "unknown class " + cls : it->second;
}

}  // namespace

TEST(PrimitiveKnownAnswers, EveryLineOfTheDataFileHolds) {
  std::istringstream file(ReadFile(std::string(KV_TEST_DATA_DIR) + "/asn1/primitives.kat"));
  std::string line;
  int lineNo = 0, checked = 0;
  while (std::getline(file, line)) {
    ++lineNo;
    if (Trim(line).empty() || Trim(line)[0] == '#') continue;
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string part;
    while (std::getline(ss, part, '|')) f.push_back(Trim(part));
    ASSERT_EQ(f.size(), 4u) << "line " << lineNo;
    const std::string &type = f[0], &mode = f[1], &value = f[2], &hex = f[3];
    SCOPED_TRACE("line " + std::to_string(lineNo) + ": " + line);
    std::unique_ptr<AsnObject> obj = Make(type);
    ASSERT_TRUE(obj) << "unknown type";
    if (mode == "both" || mode == "enc") {
      SetValue(*obj, value);
      EXPECT_EQ(Der(*obj), Hex(Bytes(hex)));
    }
    if (mode == "both" || mode == "dec" || mode == "round") {
      MiByte in = Bytes(hex);
      std::unique_ptr<AsnObject> got = Make(type);
      EXPECT_NO_THROW(got->DerDecode(in, 0));
      if (value != "*") {
        EXPECT_EQ(ValueText(*got), value);
      }
      if (mode == "round") {
        EXPECT_EQ(Der(*got), Hex(in));
      }
    }
    if (mode.rfind("dec!", 0) == 0) {
      MiByte in = Bytes(hex);
      EXPECT_EQ(ThrownMessage([&] { obj->DerDecode(in, 0); }), MessageOf(mode.substr(4)));
    }
    if (mode.rfind("enc!", 0) == 0) {
      EXPECT_EQ(ThrownMessage([&] {
                  SetValue(*obj, value);
                  Der(*obj);
                }),
                MessageOf(mode.substr(4)));
    }
    ++checked;
  }
  EXPECT_GT(checked, 100);
}
