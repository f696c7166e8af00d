#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "asn1/asn1.h"

namespace {

// Throws by value, catches through the given base, returns the text.
template <typename Thrown, typename Base>
std::string Through() {
  try {
    throw Thrown();
  } catch (const Base& e) {
    return e.GetMessage();
  } catch (...) {
  }
  return "not caught";
}

TEST(MiException, TextsAndHierarchy) {
  EXPECT_EQ((Through<MiLogicExp, MiException>()), "logic exp");
  EXPECT_EQ((Through<MiInvalidArgumentExp, MiLogicExp>()), "invalid argument exp");
  EXPECT_EQ((Through<MiOutOfRangeExp, MiLogicExp>()), "out of range exp");
  EXPECT_EQ((Through<MiDomainExp, MiLogicExp>()), "domain exp");
  EXPECT_EQ((Through<MiRuntimeExp, MiException>()), "runtime exp");
  EXPECT_EQ((Through<MiRangeExp, MiRuntimeExp>()), "range exp");
  EXPECT_EQ((Through<AsnException, MiException>()), "asn exception");
  EXPECT_EQ((Through<AsnDecodeExp, AsnException>()), "asn decode exception");
  EXPECT_EQ((Through<AsnEncodeExp, AsnException>()), "asn encode exception");
  EXPECT_EQ((Through<AsnDataExp, MiException>()), "asn data exception");
  // The branches stay apart.
  EXPECT_EQ((Through<AsnDecodeExp, MiLogicExp>()), "not caught");
  EXPECT_EQ((Through<MiRangeExp, MiLogicExp>()), "not caught");
  EXPECT_EQ((Through<MiOutOfRangeExp, MiRuntimeExp>()), "not caught");
  EXPECT_TRUE((std::is_base_of<MiObject, MiException>::value));
}

TEST(MiException, CopiesKeepTheTextAndLongTextsAreCut) {
  MiRuntimeExp custom(std::string(500, 'x').c_str());
  MiException sliced = custom;
  EXPECT_EQ(std::string(sliced.GetMessage()), std::string(std::strlen(sliced.GetMessage()), 'x'));
  EXPECT_LT(std::strlen(sliced.GetMessage()), 200u);
  sliced = AsnDataExp();
  EXPECT_STREQ(sliced.what(), "asn data exception");
  EXPECT_STREQ(MiException(nullptr).GetMessage(), "");
}

}  // namespace
