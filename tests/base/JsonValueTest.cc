#include "base/JsonValue.h"

#include <gtest/gtest.h>

namespace vorlen {
namespace {

TEST(JsonValueTest, ConvertsBothWaysAndRefusesWhatAPropertyListCannotHold) {
  std::string error;
  auto v = JsonValue::toValue(
      nlohmann::json::parse(R"({"a": [1, 2.5, "x", true], "big": 18446744073709551615})"), &error);
  ASSERT_TRUE(v) << error;
  EXPECT_EQ(v->getDict()->at("a").getArray()->at(0).getInt(), 1);
  EXPECT_EQ(v->getDict()->at("big").type(), Value::Type::UInt);
  EXPECT_EQ(JsonValue::toJson(*v).dump(), R"({"a":[1,2.5,"x",true],"big":18446744073709551615})");

  // Nulls inside containers are left out, as the archive coder leaves them out; only a null root fails.
  auto dropped =
      JsonValue::toValue(nlohmann::json::parse(R"({"a": {"b": null, "c": 1}, "d": [null, 2]})"), &error);
  ASSERT_TRUE(dropped) << error;
  EXPECT_EQ(JsonValue::toJson(*dropped).dump(), R"({"a":{"c":1},"d":[2]})");
  EXPECT_FALSE(JsonValue::toValue(nlohmann::json(nullptr), &error));
  EXPECT_EQ(error, "value: null has no property-list form");

  // Nesting is bounded so that hostile input cannot exhaust the stack; the limit itself still converts.
  auto nested = [](int depth) {
    std::string text(static_cast<size_t>(depth), '[');
    return nlohmann::json::parse(text + std::string(static_cast<size_t>(depth), ']'));
  };
  EXPECT_TRUE(JsonValue::toValue(nested(JsonValue::kMaxDepth), &error)) << error;
  EXPECT_FALSE(JsonValue::toValue(nested(JsonValue::kMaxDepth + 1), &error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos);
}

}  // namespace
}  // namespace vorlen
