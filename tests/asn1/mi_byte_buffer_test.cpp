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
  EXPECT_EQ(b.GetLength(), 1025u);
  EXPECT_EQ(b.CharAt(1024), 0x55);
  EXPECT_EQ(b.CharAt(255), 0xFF);

  MiByteBuffer sized(3000);
  EXPECT_EQ(sized.Capacity(), 4096u);
  EXPECT_EQ(sized.GetLength(), 3000u);
  EXPECT_EQ(sized.CharAt(2999), 0);
  EXPECT_EQ(MiByteBuffer(1024).Capacity(), 1024u);
  EXPECT_EQ(MiByteBuffer(1025).Capacity(), 2048u);

  std::string big(5000, 'q');
  MiByteBuffer appended;
  appended.Append(big.data(), 5000);
  EXPECT_EQ(appended.Capacity(), 8192u);
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

  // 2048 and below never come down.
  MiByteBuffer d(2000);
  d.SetByte("x", 1);
  EXPECT_EQ(d.Capacity(), 2048u);

  // Lowering the length alone keeps the capacity; the next append applies the rule.
  MiByteBuffer e(8000);
  e.SetLength(100);
  EXPECT_EQ(e.Capacity(), 8192u);
  e.Append(static_cast<unsigned char>(1));
  EXPECT_EQ(e.Capacity(), 2048u);
  EXPECT_EQ(e.GetLength(), 101u);
  EXPECT_EQ(e.CharAt(99), 0);
  EXPECT_EQ(e.CharAt(100), 1);

  MiByteBuffer f;
  f.Reset(nullptr);
  EXPECT_EQ(f.Capacity(), 1024u);
}

TEST(MiByteBuffer, EnsureCapacityAndSetLengthOnlyGrowAsAsked) {
  MiByteBuffer b("abc", 3);
  b.EnsureCapacity(1000);
  EXPECT_EQ(b.Capacity(), 1024u);
  b.EnsureCapacity(4097);
  EXPECT_EQ(b.Capacity(), 8192u);
  EXPECT_EQ(Content(b), "abc");
  b.EnsureCapacity(10);  // never shrinks
  EXPECT_EQ(b.Capacity(), 8192u);

  MiByteBuffer c("abc", 3);
  c.SetLength(1);
  c.SetLength(3);  // grown bytes are zero, not the old "bc"
  EXPECT_EQ(Content(c), std::string("a\0\0", 3));
}

TEST(MiByteBuffer, DeleteByteAppliesTheRuleToTheRemovedCount) {
  // Removing 7900 of 9000 bytes: the rule is asked about 7900, which keeps
  // 16384 (the 1100 that remain would have given 4096).
  MiByteBuffer a(9000);
  ASSERT_EQ(a.Capacity(), 16384u);
  a.DeleteByte(100, 8000);
  EXPECT_EQ(a.GetLength(), 1100u);
  EXPECT_EQ(a.Capacity(), 16384u);

  // Removing a few bytes from a large buffer holding little shrinks it.
  MiByteBuffer b(16384);
  b.SetLength(1000);
  b.SetCharAt(10, 0x11);
  b.DeleteByte(0, 10);
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(b.GetLength(), 990u);
  EXPECT_EQ(b.CharAt(0), 0x11);

  // ... but never below what remains.
  MiByteBuffer c(9000);
  c.SetCharAt(8999, 0x22);
  c.DeleteByte(0, 100);
  EXPECT_EQ(c.GetLength(), 8900u);
  EXPECT_GE(c.Capacity(), 8900u);
  EXPECT_EQ(c.CharAt(8899), 0x22);
}

TEST(MiByteBuffer, DeleteByteRangeRules) {
  MiByteBuffer b("0123456789", 10);
  b.DeleteByte(3, 3);
  b.DeleteByte(5, 4);
  b.DeleteByte(10, 12);
  EXPECT_EQ(Content(b), "0123456789");
  b.DeleteByte(8, 100);  // end cut back to the length
  EXPECT_EQ(Content(b), "01234567");
  b.DeleteByte(2, 4);
  EXPECT_EQ(Content(b), "014567");
}

TEST(MiByteBuffer, AppendOverloads) {
  MiByte src("abcdef", 6);
  MiByteBuffer b;
  b.Append(src, 4).Append(src, 1, 2).Append(src, 5, 99).Append(src, 6).Append(src, 6, 1);
  EXPECT_EQ(Content(b), "efbcf");
  b.Append(static_cast<const MiByte*>(nullptr)).Append(nullptr, 3).Append("zz", 0u);
  b.Append(&src).Append("xyz", 1, 1);
  EXPECT_EQ(Content(b), "efbcfabcdefy");
  b.Append(MiByte()).Append(MiByte(), 0);
  MiByteBuffer other("!!", 2);
  b.Append(other);
  EXPECT_EQ(Content(b), "efbcfabcdefy!!");
  // Appending the buffer to itself across a reallocation.
  MiByteBuffer self(std::string(700, 's').data(), 700);
  self.Append(self);
  EXPECT_EQ(Content(self), std::string(1400, 's'));
  EXPECT_EQ(self.Capacity(), 2048u);
}

TEST(MiByteBuffer, InsertRules) {
  MiByteBuffer b("ace", 3);
  b.Insert(1, static_cast<unsigned char>('b')).Insert(3, "d", 1).Insert(5, "xfx", 1, 1);
  EXPECT_EQ(Content(b), "abcdef");
  b.Insert(0, MiByte(">", 1));
  EXPECT_EQ(Content(b), ">abcdef");
  EXPECT_THROW(b.Insert(8, "x", 1), MiOutOfRangeExp);
  EXPECT_THROW(b.Insert(8, static_cast<unsigned char>('x')), MiOutOfRangeExp);
  EXPECT_EQ(Content(b), ">abcdef");
  b.Insert(2, nullptr, 5).Insert(2, "q", 0u);
  EXPECT_EQ(Content(b), ">abcdef");
  // A source inside the buffer itself, without and with reallocation.
  b.Insert(0, b.GetChars() + 1, 3);
  EXPECT_EQ(Content(b), "abc>abcdef");
  MiByteBuffer big(std::string(1000, 'x').data(), 1000);
  big.SetCharAt(0, 'A');
  big.Insert(500, big.GetChars(), 100);
  EXPECT_EQ(big.GetLength(), 1100u);
  EXPECT_EQ(big.CharAt(500), 'A');
  EXPECT_EQ(big.Capacity(), 2048u);
}

TEST(MiByteBuffer, ReplaceAndReverse) {
  MiByteBuffer b("a.b.c", 5);
  b.Replace('.', '/');
  EXPECT_EQ(Content(b), "a/b/c");
  b.Replace(1, 4, MiByte("-XY-", 4));
  EXPECT_EQ(Content(b), "a-XY-c");
  b.Replace(6, 9, "!", 1);
  EXPECT_EQ(Content(b), "a-XY-c!");
  EXPECT_THROW(b.Replace(8, 9, "!", 1), MiOutOfRangeExp);
  b.Replace(0, 2, b.GetChars() + 2, 2);
  EXPECT_EQ(Content(b), "XYXY-c!");

  MiByteBuffer r("abcdef", 6);
  r.Reverse();
  EXPECT_EQ(Content(r), "fedcba");
  r.Reverse(2);
  EXPECT_EQ(Content(r), "feabcd");
  r.Reverse(1, 4);
  EXPECT_EQ(Content(r), "fbaecd");
  r.Reverse(3, 99);
  EXPECT_EQ(Content(r), "fbadce");
  r.Reverse(2, 2);
  EXPECT_EQ(Content(r), "fbadce");
  EXPECT_THROW(r.Reverse(6), MiOutOfRangeExp);
  EXPECT_THROW(r.Reverse(3, 2), MiInvalidArgumentExp);
  MiByteBuffer empty;
  empty.Reverse();
  EXPECT_TRUE(empty.Empty());
}

TEST(MiByteBuffer, OperatorsWeighBytesUnsigned) {
  EXPECT_TRUE(Buf({0x80}) > Buf({0x7F}));  // MiByte says the opposite
  EXPECT_TRUE(MiByte("\x80", 1) < MiByte("\x7f", 1));
  EXPECT_TRUE(Buf({0xFF}) < Buf({0x00, 0x00}));  // length first
  EXPECT_TRUE(MiByteBuffer() < Buf({0x00}));
  EXPECT_TRUE(MiByteBuffer() == MiByteBuffer());
  EXPECT_TRUE(Buf({1, 2}) == Buf({1, 2}));
  EXPECT_TRUE(Buf({1, 2}) != Buf({1, 3}));
  EXPECT_TRUE(Buf({1, 2}) <= Buf({1, 2}));
  EXPECT_TRUE(Buf({1, 0xF0}) >= Buf({1, 0x0F}));
}

TEST(MiByteBuffer, SettersCopiesAndIndexing) {
  MiByteBuffer b("keep", 4);
  b.SetByte(nullptr, 2);
  b.SetByte("zz", 0u);
  b.SetByte(MiByte());
  EXPECT_EQ(Content(b), "keep");
  MiByte src("abcdef", 6);
  b.SetByte(src, 1, 2);
  EXPECT_EQ(Content(b), "bc");
  EXPECT_THROW(b.SetByte(src, 5, 2), MiOutOfRangeExp);
  EXPECT_EQ(Content(b), "bc");
  b.SetByte(src, 3);
  EXPECT_EQ(Content(b), "abc");
  b.SetByte(src);
  EXPECT_EQ(Content(b), "abcdef");
  b.SetByte("012345", 4, 2);
  EXPECT_EQ(Content(b), "45");

  MiByte copy = b.GetByte();
  b[0] = 'X';
  EXPECT_STREQ(copy.GetChars(), "45");
  EXPECT_EQ(b[0], 'X');
  EXPECT_THROW(b[2], MiOutOfRangeExp);
  EXPECT_THROW(b.SetCharAt(2, 0), MiOutOfRangeExp);

  MiByteBuffer c(b);
  c.Append("!", 1);
  EXPECT_EQ(Content(b), "X5");
  b = c;
  EXPECT_EQ(Content(b), "X5!");
  MiByteBuffer moved(std::move(c));
  EXPECT_EQ(Content(moved), "X5!");
  EXPECT_TRUE(c.Empty());
  c.Append("again", 5);  // a moved-from buffer starts over like a new one
  EXPECT_EQ(Content(c), "again");
  EXPECT_EQ(c.Capacity(), 1024u);
  EXPECT_EQ(Content(MiByteBuffer(src)), "abcdef");
}

TEST(MiByteBuffer, StreamLayoutMatchesMiByte) {
  std::string data(17, '\x5A');
  std::ostringstream a, b;
  MiByteBuffer(data.data(), 17).ToOstream(a, 1);
  MiByte(data.data(), 17).ToOstream(b, 1);
  EXPECT_EQ(a.str(), b.str());
  std::ostringstream c;
  c << MiByteBuffer();
  EXPECT_EQ(c.str(), "");
}

// Random edits checked against std::string, with the capacity invariants.
TEST(MiByteBuffer, RandomEditsMatchAStringModel) {
  std::mt19937 rng(1234);
  MiByteBuffer b;
  std::string model;
  for (int step = 0; step < 4000; ++step) {
    unsigned len = static_cast<unsigned>(model.size());
    std::string chunk(rng() % 3000, static_cast<char>('a' + step % 26));
    switch (rng() % 5) {
      case 0:
        b.Append(chunk.data(), static_cast<unsigned>(chunk.size()));
        model += chunk;
        break;
      case 1: {
        unsigned pos = len == 0 ? 0 : rng() % (len + 1);
        b.Insert(pos, chunk.data(), static_cast<unsigned>(chunk.size()));
        model.insert(pos, chunk);
        break;
      }
      case 2:
      case 3: {
        if (len == 0) break;
        unsigned start = rng() % len;
        unsigned end = start + rng() % (len - start + 100);
        b.DeleteByte(start, end);
        model.erase(start, end - start);
        break;
      }
      default: {
        if (len == 0) break;
        unsigned start = rng() % len;
        unsigned end = start + rng() % (len - start + 1);
        b.Reverse(start, end);
        std::reverse(model.begin() + start, model.begin() + (end > len ? len : end));
      }
    }
    if (model.size() > 200000) {
      b.SetLength(100);
      model.resize(100);
    }
    ASSERT_EQ(Content(b), model) << "step " << step;
    unsigned cap = b.Capacity();
    ASSERT_GE(cap, b.GetLength());
    ASSERT_EQ(cap & (cap - 1), 0u) << cap;  // 1024 * 2^k
    ASSERT_GE(cap, 1024u);
  }
}

}  // namespace
