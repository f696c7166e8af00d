// The flat interface's base: counted initialisation, contexts and lists.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "pki/pki.h"

namespace {

// Each test leaves the library as it found it: finalised.
class FlatTest : public ::testing::Test {
 protected:
  void TearDown() override {
    while (PKCS_Finalize() == 0) {
    }
  }
};

TEST_F(FlatTest, InitialisationIsCountedAndNeverGoesBelowZero) {
  PKCS_CTX ctx = reinterpret_cast<PKCS_CTX>(1);
  EXPECT_EQ(PKCS_CreateCtx(&ctx), KV_ERR_NOT_INITIALIZED);
  EXPECT_EQ(ctx, nullptr);
  EXPECT_EQ(PKCS_Finalize(), KV_ERR_NOT_INITIALIZED);
  ASSERT_EQ(PKCS_Initialize(), 0);
  ASSERT_EQ(PKCS_Initialize(), 0);
  ASSERT_EQ(PKCS_Finalize(), 0);
  // One Initialize is still outstanding.
  ASSERT_EQ(PKCS_CreateCtx(&ctx), 0);
  EXPECT_EQ(PKCS_DestroyCtx(ctx), 0);
  ASSERT_EQ(PKCS_Finalize(), 0);
  EXPECT_EQ(PKCS_CreateCtx(&ctx), KV_ERR_NOT_INITIALIZED);
  // An unmatched Finalize must not let a later Initialize count for nothing.
  EXPECT_EQ(PKCS_Finalize(), KV_ERR_NOT_INITIALIZED);
  ASSERT_EQ(PKCS_Initialize(), 0);
  EXPECT_EQ(PKCS_CreateCtx(&ctx), 0);
  PKCS_DestroyCtx(ctx);
}

TEST_F(FlatTest, ContextsAreCheckedAndDestroyedOnce) {
  ASSERT_EQ(PKCS_Initialize(), 0);
  EXPECT_EQ(PKCS_CreateCtx(nullptr), KV_ERR_ARGUMENT);
  EXPECT_EQ(PKCS_DestroyCtx(nullptr), KV_ERR_BAD_CONTEXT);
  PKCS_CTX a = nullptr, b = nullptr;
  ASSERT_EQ(PKCS_CreateCtx(&a), 0);
  ASSERT_EQ(PKCS_CreateCtx(&b), 0);
  EXPECT_NE(a, b);
  // A live context is accepted: the request is then looked at.
  PKCS_PUBKEY pub{};
  unsigned char junk[2] = {0x31, 0x00};  // a SET, not a request
  EXPECT_EQ(KVPKCS_DecomposePKCS10(a, junk, 2, nullptr, &pub), KV_ERR_DECODE);
  EXPECT_EQ(PKCS_DestroyCtx(a), 0);
  // A destroyed context is refused, not read (the sanitizer build would
  // catch a read of its freed memory).
  EXPECT_EQ(PKCS_DestroyCtx(a), KV_ERR_BAD_CONTEXT);
  EXPECT_EQ(KVPKCS_DecomposePKCS10(a, junk, 2, nullptr, &pub), KV_ERR_BAD_CONTEXT);
  EXPECT_EQ(PKCS_DestroyCtx(b), 0);
  EXPECT_EQ(PKCS_DestroyCtx(b), KV_ERR_BAD_CONTEXT);
}

TEST(FlatList, AppendGetCopyRemoveClear) {
  KV_LIST* list = nullptr;
  ASSERT_EQ(KV_CreateList(&list), 0);
  EXPECT_EQ(KV_CreateList(nullptr), KV_ERR_ARGUMENT);
  const std::string items[] = {"first", std::string("\0\1\2", 3), ""};
  for (const std::string& s : items)
    ASSERT_EQ(KV_ListAppend(list, reinterpret_cast<const unsigned char*>(s.data()),
                            static_cast<unsigned>(s.size())),
              0);
  EXPECT_EQ(KV_ListAppend(list, nullptr, 1), KV_ERR_ARGUMENT);
  EXPECT_EQ(KV_ListAppend(nullptr, nullptr, 0), KV_ERR_ARGUMENT);
  unsigned count = 0;
  ASSERT_EQ(KV_ListCount(list, &count), 0);
  ASSERT_EQ(count, 3u);
  for (unsigned i = 0; i < 3; ++i) {
    const unsigned char* p = nullptr;
    unsigned n = 99;
    ASSERT_EQ(KV_ListGet(list, i, &p, &n), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), n), items[i]);
  }
  const unsigned char* p;
  unsigned n;
  EXPECT_EQ(KV_ListGet(list, 3, &p, &n), KV_ERR_INDEX);

  // Copy: size query, too small, exact.
  unsigned size = 0;
  ASSERT_EQ(KV_ListCopy(list, 0, nullptr, &size), 0);
  EXPECT_EQ(size, 5u);
  unsigned char buf[8];
  unsigned small = 4;
  EXPECT_EQ(KV_ListCopy(list, 0, buf, &small), KV_ERR_BUFFER);
  unsigned room = sizeof buf;
  ASSERT_EQ(KV_ListCopy(list, 0, buf, &room), 0);
  EXPECT_EQ(room, 5u);
  EXPECT_EQ(std::memcmp(buf, "first", 5), 0);
  EXPECT_EQ(KV_ListCopy(list, 7, buf, &room), KV_ERR_INDEX);

  // The list holds copies: changing the source changes nothing.
  std::string source = "mutable";
  ASSERT_EQ(KV_ListAppend(list, reinterpret_cast<const unsigned char*>(source.data()), 7), 0);
  source[0] = 'X';
  ASSERT_EQ(KV_ListGet(list, 3, &p, &n), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), n), "mutable");

  // Remove shifts the rest down.
  ASSERT_EQ(KV_ListRemove(list, 0), 0);
  EXPECT_EQ(KV_ListRemove(list, 3), KV_ERR_INDEX);
  ASSERT_EQ(KV_ListGet(list, 0, &p, &n), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), n), items[1]);
  ASSERT_EQ(KV_ListClear(list), 0);
  ASSERT_EQ(KV_ListCount(list, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(KV_DestroyList(list), 0);
  EXPECT_EQ(KV_DestroyList(nullptr), 0);
}

}  // namespace
