#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "PropertyListTestSupport.h"
#include "additions/PropertyListAdditions.h"
#include "platform/Object.h"

namespace loomwork {
namespace {

using ::testing::HasSubstr;

const Value kNullMarker{kExtendedPropertyListNullMarker};
const Value kSetMarker{kExtendedPropertyListSetMarker};

TEST(PropertyListAdditions, TranslatesNullsAndSetsBothWays) {
  EXPECT_EQ(kExtendedPropertyListNullMarker, "com.tarnwick.NSPropertyListSerialization.NSNull");
  EXPECT_EQ(kExtendedPropertyListSetMarker, "com.tarnwick.NSPropertyListSerialization.NSSet");

  // The stored forms; the seeded round trip below checks the way back.
  Value withNulls = Value::array({1, Value::null(), Value::dictionary({{"a", Value::null()}})});
  Value stored = propertyListFromExtendedPropertyList(withNulls);
  EXPECT_TRUE(testing::sameValue(stored, Value::array({1, kNullMarker, Value::dictionary({{"a", kNullMarker}})})));

  Value set = Value::set({"x", "y"});
  Value storedSet = _translatePropertyListForward(set, true);
  ASSERT_EQ(storedSet.count(), 1u);
  Array members(set.set().begin(), set.set().end());
  EXPECT_TRUE(testing::sameValue(*storedSet.objectForKey(kSetMarker), Value(members)));

  // The marker key wins over the other entries, which are lost.
  Value mixed = Value::dictionary({{"other", 1}, {kSetMarker, Value::array({1, 2, 2})}, {"more", 2}});
  EXPECT_EQ(extendedPropertyListFromPropertyList(mixed), Value::set({1, 2}));
  // A marker entry that is not an array does not make a set.
  Value notASet = Value::dictionary({{kSetMarker, "x"}, {"n", kNullMarker}});
  EXPECT_TRUE(testing::sameValue(extendedPropertyListFromPropertyList(notASet),
                                 Value::dictionary({{kSetMarker, "x"}, {"n", Value::null()}})));

  // The accepted collision: a stored marker string reads back as null.
  EXPECT_TRUE(extendedPropertyListFromPropertyList(kNullMarker).isNull());
  EXPECT_TRUE(propertyListFromExtendedPropertyList(kNullMarker).isString());

  // What is met in the other direction passes through; keys are never translated.
  EXPECT_TRUE(_translatePropertyListForward(Value::null(), false).isNull());
  EXPECT_TRUE(_translatePropertyListForward(set, false).isIdenticalTo(set));
  Value nullKey = Value::dictionary({{Value::null(), 1}});
  EXPECT_TRUE(propertyListFromExtendedPropertyList(nullKey).dictionary().begin()->first.isNull());

  // Containers without anything to translate come back as they are.
  Value plain = Value::dictionary({{"a", Value::array({1, "b", Value::data({1})})}});
  EXPECT_TRUE(propertyListFromExtendedPropertyList(plain).isIdenticalTo(plain));
  EXPECT_TRUE(extendedPropertyListFromPropertyList(plain).isIdenticalTo(plain));
  Value partly = Value::array({plain, Value::null()});
  EXPECT_TRUE(propertyListFromExtendedPropertyList(partly).array()[0].isIdenticalTo(plain));
}

// Sprinkles nulls and sets over a random property list.
Value extend(const Value& v, std::mt19937_64& random) {
  if (random() % 12 == 0) return Value::null();
  if (auto a = v.tryArray()) {
    Array out;
    for (const Value& e : *a) out.push_back(extend(e, random));
    if (random() % 3 == 0) return Value(Set(out.begin(), out.end()));
    return Value(std::move(out));
  }
  if (auto d = v.tryDictionary()) {
    Dictionary out;
    for (const auto& [key, value] : *d) out.insert_or_assign(key, extend(value, random));
    return Value(std::move(out));
  }
  if (v == kNullMarker) return Value("not the marker");
  return v;
}

TEST(PropertyListAdditions, ExtendedValuesRoundTripThroughBothFormats) {
  for (uint64_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
      testing::PlistGenerator generator(seed, {.xmlSafe = format == PropertyListFormat::XML});
      Value extended = extend(generator.value(), random);
      std::string error;
      auto data = dataFromExtendedPropertyListFormatErrorDescription(extended, format, &error);
      ASSERT_TRUE(data) << error;
      PropertyListFormat found{};
      auto back = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
          *data, PropertyListMutabilityOption::MutableContainers, &found, &error);
      ASSERT_TRUE(back) << error;
      EXPECT_EQ(found, format);
      EXPECT_EQ(*back, extended) << extended.description() << "\n" << back->description();
    }
  }
}

TEST(PropertyListAdditions, ErrorsGoToTheOptionalText) {
  class Thing : public Object {};
  std::string error = "untouched";
  EXPECT_FALSE(dataFromExtendedPropertyListFormatErrorDescription(Value::array({Value(make<Thing>())}),
                                                                  PropertyListFormat::Binary, &error));
  EXPECT_EQ(error, "Property list cannot hold an object reference");
  EXPECT_FALSE(dataFromExtendedPropertyListFormatErrorDescription(Value::dictionary({{Value::set({1}), 1}}),
                                                                  PropertyListFormat::XML, &error));
  EXPECT_THAT(error, HasSubstr("keys must be strings"));
  EXPECT_FALSE(dataFromExtendedPropertyListFormatErrorDescription(Value::dictionary({{Value::null(), 1}}),
                                                                  PropertyListFormat::Binary, nullptr));

  error = "untouched";
  auto ok = dataFromExtendedPropertyListFormatErrorDescription(Value::null(), PropertyListFormat::Binary, &error);
  ASSERT_TRUE(ok);
  EXPECT_EQ(error, "untouched");

  PropertyListFormat format = PropertyListFormat::Binary;
  const uint8_t garbage[] = {'<', 'p', 'l'};
  EXPECT_FALSE(extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
      garbage, PropertyListMutabilityOption::Immutable, &format, &error));
  EXPECT_THAT(error, HasSubstr("XML property list could not be parsed"));
  EXPECT_EQ(format, PropertyListFormat::Binary);
  EXPECT_FALSE(extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
      garbage, PropertyListMutabilityOption::Immutable, nullptr, nullptr));
  auto null = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
      *ok, PropertyListMutabilityOption::Immutable, nullptr, nullptr);
  ASSERT_TRUE(null);
  EXPECT_TRUE(null->isNull());
}

}  // namespace
}  // namespace loomwork
