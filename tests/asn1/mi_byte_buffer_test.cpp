#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>

#include "asn1/asn1.h"

namespace {

std::string Content(const MiByteBuffer& b) {
  return b.Empty() ? std::string() : std::string(b.GetChars(), b.GetLength());
}

MiByteBuffer Buf(std::initializer_list<int> values) {
  MiByteBuffer b;
  for (int v : values) b.Append(static_cast<unsigned char>(v));
  return b;
}

TEST(MiByteBuffer, CapacityGrowsByDoubling) {
  MiByteBuffer b;
  EXPECT_EQ(b.Capacity(), 1024u);
  EXPECT_EQ(b.GetChars(), nullptr);
  for (int i = 0; i < 1024; ++i) b.Append(static_cast<unsigned char>(i));
  EXPECT_EQ(b.Capacity(), 1024u);
  b.Append(static_cast<unsigned char>(0x55));
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(b.CharAt(1024), 0x55);
  EXPECT_EQ(b.CharAt(255), 0xFF);

  MiByteBuffer sized(3000);
  EXPECT_EQ(sized.Capacity(), 4096u);
  EXPECT_EQ(sized.GetLength(), 3000u);
  EXPECT_EQ(sized.CharAt(2999), 0);
  EXPECT_EQ(MiByteBuffer(1024).Capacity(), 1024u);
  MiByteBuffer empty(std::string(3000, 'e').data(), 0);
  empty.EnsureCapacity(4000);
  EXPECT_EQ(empty.Capacity(), 4096u);
  empty.EnsureCapacity(10);
  EXPECT_EQ(empty.Capacity(), 4096u);

  b.EnsureCapacity(4097);
  EXPECT_EQ(b.Capacity(), 8192u);
  b.EnsureCapacity(10);  // never shrinks
  EXPECT_EQ(b.Capacity(), 8192u);
  EXPECT_EQ(b.CharAt(1024), 0x55);
}

TEST(MiByteBuffer, CapacityShrinksWhenMuchLessIsAskedOfALargeBuffer) {
  std::string text(1500, 'a');
  MiByteBuffer b(5000);
  ASSERT_EQ(b.Capacity(), 8192u);
  b.SetByte(text.data(), 100);
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(Content(b), std::string(100, 'a'));
  MiByteBuffer c(5000);
  c.SetByte(text.data(), 1500);
  EXPECT_EQ(c.Capacity(), 4096u);
  MiByteBuffer d(2000);  // 2048 and below never come down
  d.SetByte("x", 1);
  EXPECT_EQ(d.Capacity(), 2048u);

  // Lowering the length keeps the capacity; the next append applies the rule,
  // and bytes uncovered again are zero.
  MiByteBuffer e(std::string(8000, 'e').data(), 8000);
  e.SetLength(100);
  EXPECT_EQ(e.Capacity(), 8192u);
  e.SetLength(101);
  EXPECT_EQ(e.Capacity(), 2048u);
  EXPECT_EQ(e.CharAt(100), 0);
  EXPECT_EQ(e.CharAt(99), 'e');
}

TEST(MiByteBuffer, DeleteByteAppliesTheRuleToTheRemovedCount) {
  // Removing 7900 of 9000 bytes: the rule is asked about 7900, which keeps
  // 16384 (the 1100 that remain would have given 4096).
  MiByteBuffer a(9000);
  ASSERT_EQ(a.Capacity(), 16384u);
  a.DeleteByte(100, 8000);
  EXPECT_EQ(a.GetLength(), 1100u);
  EXPECT_EQ(a.Capacity(), 16384u);
  // Removing a few bytes from a large buffer holding little shrinks it ...
  MiByteBuffer b(16384);
  b.SetLength(1000);
  b.SetCharAt(10, 0x11);
  b.DeleteByte(0, 10);
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(b.CharAt(0), 0x11);
  // ... but never below what remains.
  MiByteBuffer c(9000);
  c.SetCharAt(8999, 0x22);
  c.DeleteByte(0, 100);
  EXPECT_GE(c.Capacity(), 8900u);
  EXPECT_EQ(c.CharAt(8899), 0x22);

  MiByteBuffer r("0123456789", 10);
  r.DeleteByte(3, 3);
  r.DeleteByte(5, 4);
  r.DeleteByte(10, 12);
  EXPECT_EQ(Content(r), "0123456789");
  r.DeleteByte(8, 100);  // end cut back to the length
  r.DeleteByte(2, 4);
  EXPECT_EQ(Content(r), "014567");
}

TEST(MiByteBuffer, AppendAndInsertForms) {
  MiByte src("abcdef", 6);
  MiByteBuffer b;
  b.Append(src, 4).Append(src, 1, 2).Append(src, 5, 99).Append(src, 6).Append(src, 6, 1);
  EXPECT_EQ(Content(b), "efbcf");
  b.Append(static_cast<const MiByte*>(nullptr)).Append(nullptr, 3).Append("zz", 0u);
  b.Append(&src).Append("xyz", 1, 1).Append(MiByteBuffer("!", 1));
  EXPECT_EQ(Content(b), "efbcfabcdefy!");

  MiByteBuffer c("ace", 3);
  c.Insert(1, static_cast<unsigned char>('b')).Insert(3, "d", 1).Insert(5, "xfx", 1, 1);
  c.Insert(0, MiByte(">", 1)).Insert(2, nullptr, 5);
  EXPECT_EQ(Content(c), ">abcdef");
  EXPECT_THROW(c.Insert(8, "x", 1), MiOutOfRangeExp);
  EXPECT_EQ(Content(c), ">abcdef");
  // Sources inside the buffer itself, without and with reallocation.
  c.Insert(0, c.GetChars() + 1, 3);
  EXPECT_EQ(Content(c), "abc>abcdef");
  MiByteBuffer big(std::string(1000, 'x').data(), 1000);
  big.SetCharAt(0, 'A');
  big.Insert(500, big.GetChars(), 100);
  EXPECT_EQ(big.CharAt(500), 'A');
  EXPECT_EQ(big.Capacity(), 2048u);
  big.Append(big);
  EXPECT_EQ(big.GetLength(), 2200u);
  EXPECT_EQ(big.CharAt(1600), 'A');
}

TEST(MiByteBuffer, ReplaceAndReverse) {
  MiByteBuffer b("a.b.c", 5);
  b.Replace('.', '/');
  b.Replace(1, 4, MiByte("-XY-", 4));
  EXPECT_EQ(Content(b), "a-XY-c");
  b.Replace(6, 9, "!", 1);
  EXPECT_THROW(b.Replace(8, 9, "!", 1), MiOutOfRangeExp);
  b.Replace(0, 2, b.GetChars() + 2, 2);
  EXPECT_EQ(Content(b), "XYXY-c!");

  MiByteBuffer r("abcdef", 6);
  r.Reverse();
  r.Reverse(2);
  EXPECT_EQ(Content(r), "feabcd");
  r.Reverse(1, 4);
  EXPECT_EQ(Content(r), "fbaecd");
  r.Reverse(3, 99);
  EXPECT_EQ(Content(r), "fbadce");
  EXPECT_THROW(r.Reverse(6), MiOutOfRangeExp);
  EXPECT_THROW(r.Reverse(3, 2), MiInvalidArgumentExp);
  MiByteBuffer().Reverse();
}

TEST(MiByteBuffer, OperatorsWeighBytesUnsigned) {
  EXPECT_TRUE(Buf({0x80}) > Buf({0x7F}));  // MiByte says the opposite
  EXPECT_TRUE(Buf({0xFF}) < Buf({0x00, 0x00}));
  EXPECT_TRUE(MiByteBuffer() < Buf({0x00}));
  EXPECT_TRUE(MiByteBuffer() == MiByteBuffer());
  EXPECT_TRUE(Buf({1, 0xF0}) >= Buf({1, 0x0F}));
  EXPECT_TRUE(Buf({1, 2}) != Buf({1, 3}));
}

TEST(MiByteBuffer, ValueSemanticsIndexingAndStream) {
  MiByteBuffer b("keep", 4);
  b.SetByte(nullptr, 2);
  b.SetByte(MiByte());
  MiByte src("abcdef", 6);
  EXPECT_THROW(b.SetByte(src, 5, 2), MiOutOfRangeExp);
  EXPECT_EQ(Content(b), "keep");
  b.SetByte(src, 1, 2);
  EXPECT_EQ(Content(b), "bc");

  MiByte copy = b.GetByte();
  b[0] = 'X';
  EXPECT_STREQ(copy.GetChars(), "bc");
  EXPECT_THROW(b[2], MiOutOfRangeExp);
  MiByteBuffer c(b);
  c.Append("!", 1);
  EXPECT_EQ(Content(b), "Xc");
  MiByteBuffer moved(std::move(c));
  c.Append("again", 5);  // a moved-from buffer starts over like a new one
  EXPECT_EQ(Content(c), "again");
  EXPECT_EQ(c.Capacity(), 1024u);

  std::string data(17, '\x5A');
  std::ostringstream x, y;
  x << MiByteBuffer(data.data(), 17);
  y << MiByte(data.data(), 17);
  EXPECT_EQ(x.str(), y.str());
}

// Random edits checked against std::string, with the capacity invariants.
TEST(MiByteBuffer, RandomEditsMatchAStringModel) {
  std::mt19937 rng(1234);
  MiByteBuffer b;
  std::string model;
  for (int step = 0; step < 4000; ++step) {
    unsigned len = static_cast<unsigned>(model.size());
    std::string chunk(rng() % 3000, static_cast<char>('a' + step % 26));
    unsigned start = len == 0 ? 0 : rng() % len;
    unsigned op = rng() % 5;
    if (op == 0) {
      b.Append(chunk.data(), static_cast<unsigned>(chunk.size()));
      model += chunk;
    } else if (op == 1) {
      b.Insert(start, chunk.data(), static_cast<unsigned>(chunk.size()));
      model.insert(start, chunk);
    } else if (len != 0 && op < 4) {
      unsigned end = start + rng() % (len - start + 100);
      b.DeleteByte(start, end);
      model.erase(start, end - start);
    } else if (len != 0) {
      unsigned end = start + rng() % (len - start + 1);
      b.Reverse(start, end);
      std::reverse(model.begin() + start, model.begin() + end);
    }
    if (model.size() > 200000) {
      b.SetLength(100);
      model.resize(100);
    }
    ASSERT_EQ(Content(b), model) << "step " << step;
    unsigned cap = b.Capacity();
    ASSERT_GE(cap, b.GetLength());
    ASSERT_TRUE(cap >= 1024 && (cap & (cap - 1)) == 0) << cap;
  }
}

}  // namespace
