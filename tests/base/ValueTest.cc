#include "base/Value.h"

#include <gtest/gtest.h>

#include <limits>

namespace vorlen {
namespace {

constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

TEST(ValueTest, ConstructorsPickTheIntendedType) {
  EXPECT_EQ(Value("text").type(), Value::Type::String);  // not bool, though a pointer converts to one
  EXPECT_EQ(Value(std::string_view("v")).type(), Value::Type::String);
  EXPECT_EQ(Value(int64_t{-1}).type(), Value::Type::Int);
  EXPECT_EQ(Value(size_t{1}).type(), Value::Type::UInt);
  EXPECT_EQ(Value(1.0f).type(), Value::Type::Real);
  EXPECT_EQ(Value(fromUnixSeconds(0)).type(), Value::Type::Date);
  EXPECT_EQ(Value(nullptr).type(), Value::Type::Null);
  EXPECT_TRUE(Value().isNull());
}

TEST(ValueTest, IntegerGettersConvertOnlyWhenTheNumberFits) {
  EXPECT_EQ(Value(uint64_t{5}).getInt(), 5);
  EXPECT_EQ(Value(uint64_t(kInt64Max)).getInt(), kInt64Max);
  EXPECT_EQ(Value(uint64_t(kInt64Max) + 1).getInt(), std::nullopt);
  EXPECT_EQ(Value(kUInt64Max).getUInt(), kUInt64Max);
  EXPECT_EQ(Value(-1).getUInt(), std::nullopt);
  EXPECT_EQ(Value(0).getUInt(), 0u);

  EXPECT_EQ(Value(3.0).getInt(), 3);
  EXPECT_EQ(Value(-3.0).getInt(), -3);
  EXPECT_EQ(Value(-3.0).getUInt(), std::nullopt);
  EXPECT_EQ(Value(3.5).getInt(), std::nullopt);
  EXPECT_EQ(Value(9223372036854775808.0).getInt(), std::nullopt);  // 2^63
  EXPECT_EQ(Value(9223372036854775808.0).getUInt(), uint64_t{1} << 63);
  EXPECT_EQ(Value(18446744073709551616.0).getUInt(), std::nullopt);  // 2^64
  EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).getInt(), std::nullopt);

  EXPECT_EQ(Value(kUInt64Max).getDouble(), 18446744073709551615.0);
  EXPECT_EQ(Value(-2).getDouble(), -2.0);
  EXPECT_EQ(Value("1").getInt(), std::nullopt);
  EXPECT_EQ(Value(true).getInt(), std::nullopt);
  EXPECT_EQ(Value(1).getBool(), std::nullopt);
  EXPECT_EQ(Value(false).getBool(), false);
}

TEST(ValueTest, SignedAndUnsignedIntegersOfTheSameNumberAreEqualAtAnyDepth) {
  EXPECT_EQ(Value(7), Value(7u));
  EXPECT_EQ(Value(7u), Value(7));
  EXPECT_NE(Value(-1), Value(kUInt64Max));
  EXPECT_NE(Value(kUInt64Max), Value(-1));
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value(true));
  EXPECT_NE(Value("1"), Value(1));

  Value a = Value::array({1, Value::dict({{"n", Value(2u)}, {"s", "x"}})});
  Value b = Value::array({1u, Value::dict({{"n", Value(2)}, {"s", "x"}})});
  EXPECT_EQ(a, b);
  b.getArray()->at(1).set("s", "y");
  EXPECT_NE(a, b);
  EXPECT_NE(Value::array({1}), Value::array({1, 2}));
}

TEST(ValueTest, DictionaryAccess) {
  Value v;
  v.set("a", 1).set("b", "two");
  ASSERT_TRUE(v.isDict());
  EXPECT_EQ(*v.find("a"), Value(1));
  EXPECT_EQ(*v.find("b")->getString(), "two");
  EXPECT_EQ(v.find("missing"), nullptr);
  v.set("a", 3);
  EXPECT_EQ(v.find("a")->getInt(), 3);
  EXPECT_TRUE(v.erase("a"));
  EXPECT_FALSE(v.erase("a"));
  EXPECT_EQ(v.getDict()->size(), 1u);

  EXPECT_EQ(Value(5).find("a"), nullptr);
  EXPECT_FALSE(Value(5).erase("a"));
}

TEST(ValueTest, RecordsNameTheirClass) {
  Value r = Value::record("VORError");
  EXPECT_EQ(r.className(), "VORError");
  EXPECT_EQ(*r.find("$class"), Value("VORError"));
  r.set("code", 500);
  EXPECT_EQ(r.className(), "VORError");
  EXPECT_EQ(Value::dict({{"code", 500}}).className(), "");
  EXPECT_EQ(Value::dict({{"$class", 1}}).className(), "");
  EXPECT_EQ(Value("VORError").className(), "");
}

TEST(ValueTest, DescribeRendersEveryType) {
  Value v = Value::dict({
      {"s", "say \"hi\"\n"},
      {"n", Value::array({-1, kUInt64Max, 0.5, 2.0, true, nullptr})},
      {"d", Value::Data{0x00, 0xab}},
      {"t", fromUnixSeconds(978307200.25)},
      {"u", fromUnixSeconds(0)},
  });
  EXPECT_EQ(v.describe(),
            "{\"d\": <00ab>, \"n\": [-1, 18446744073709551615, 0.5, 2.0, true, null], \"s\": \"say "
            "\\\"hi\\\"\\n\", "
            "\"t\": 2001-01-01T00:00:00.250000Z, \"u\": 1970-01-01T00:00:00Z}");
  std::string longData = Value(Value::Data(100, 0x11)).describe();
  EXPECT_EQ(longData, "<" + std::string(64, '1') + "... 100 bytes>");
}

}  // namespace
}  // namespace vorlen
