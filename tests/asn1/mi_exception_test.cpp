#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "asn1/asn1.h"

namespace {

template <typename Thrown, typename Caught>
std::string CatchAs() {
  try {
    throw Thrown();
  } catch (const Caught& e) {
    return e.GetMessage();
  }
  return "";
}

TEST(MiException, EachClassCarriesItsTextAndIsCaughtThroughItsBases) {
  EXPECT_EQ((CatchAs<MiLogicExp, MiException>()), "logic exp");
  EXPECT_EQ((CatchAs<MiInvalidArgumentExp, MiLogicExp>()), "invalid argument exp");
  EXPECT_EQ((CatchAs<MiOutOfRangeExp, MiLogicExp>()), "out of range exp");
  EXPECT_EQ((CatchAs<MiDomainExp, MiException>()), "domain exp");
  EXPECT_EQ((CatchAs<MiRuntimeExp, MiException>()), "runtime exp");
  EXPECT_EQ((CatchAs<MiRangeExp, MiRuntimeExp>()), "range exp");
  EXPECT_EQ((CatchAs<AsnException, MiException>()), "asn exception");
  EXPECT_EQ((CatchAs<AsnDecodeExp, AsnException>()), "asn decode exception");
  EXPECT_EQ((CatchAs<AsnEncodeExp, AsnException>()), "asn encode exception");
  EXPECT_EQ((CatchAs<AsnDataExp, AsnException>()), "asn data exception");
  bool asObject = false;
  try {
    throw AsnDataExp();
  } catch (const MiObject&) {
    asObject = true;
  }
  EXPECT_TRUE(asObject);
}

TEST(MiException, BranchesDoNotCatchEachOther) {
  bool logic = false;
  try {
    try {
      throw AsnDecodeExp();
    } catch (const MiLogicExp&) {
      logic = true;
    }
  } catch (const AsnException& e) {
    EXPECT_STREQ(e.GetMessage(), "asn decode exception");
  }
  EXPECT_FALSE(logic);
}

TEST(MiException, CopiesKeepTheTextAndLongTextsAreCut) {
  AsnDataExp original;
  AsnDataExp copy(original);
  EXPECT_STREQ(copy.GetMessage(), "asn data exception");
  std::string longText(500, 'x');
  MiRuntimeExp custom(longText.c_str());
  MiException sliced = custom;
  EXPECT_LT(std::strlen(sliced.GetMessage()), 200u);
  EXPECT_EQ(sliced.GetMessage()[0], 'x');
  EXPECT_STREQ(MiException(nullptr).GetMessage(), "");
}

}  // namespace
