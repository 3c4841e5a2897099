#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PropertyListTestSupport.h"
#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Object.h"

namespace loomwork {
namespace {

using ::testing::HasSubstr;
using testing::sameValue;

const Value kNullMarker{kExtendedPropertyListNullMarker};
const Value kSetMarker{kExtendedPropertyListSetMarker};

TEST(PropertyListAdditions, TranslatesNullsAndSetsBothWays) {
  EXPECT_EQ(kExtendedPropertyListNullMarker, "com.tarnwick.NSPropertyListSerialization.NSNull");
  EXPECT_EQ(kExtendedPropertyListSetMarker, "com.tarnwick.NSPropertyListSerialization.NSSet");
  auto store = propertyListFromExtendedPropertyList;
  auto load = extendedPropertyListFromPropertyList;

  // The stored forms, set members in the set's order; the seeded round trip in
  // PropertyListCodecTests.cpp checks the way back.
  Value set = Value::set({"x", "y"});
  Value storedSet = Value::dictionary({{kSetMarker, Value(Array(set.set().begin(), set.set().end()))}});
  EXPECT_TRUE(sameValue(store(Value::array({1, Value::null(), Value::dictionary({{"a", Value::null()}}), set})),
                        Value::array({1, kNullMarker, Value::dictionary({{"a", kNullMarker}}), storedSet})));

  // The marker key wins over the other entries, which are lost; a marker
  // entry that is not an array does not make a set.
  Value mixed = Value::dictionary({{"other", 1}, {kSetMarker, Value::array({1, 2, 2})}, {"more", 2}});
  EXPECT_EQ(load(mixed), Value::set({1, 2}));
  EXPECT_TRUE(sameValue(load(Value::dictionary({{kSetMarker, "x"}, {"n", kNullMarker}})),
                        Value::dictionary({{kSetMarker, "x"}, {"n", Value::null()}})));

  // The accepted collision: a stored marker string reads back as null.
  EXPECT_TRUE(load(kNullMarker).isNull());
  EXPECT_TRUE(store(kNullMarker).isString());

  // What is met in the other direction passes through; keys are never translated.
  EXPECT_TRUE(_translatePropertyListForward(Value::null(), false).isNull());
  EXPECT_TRUE(_translatePropertyListForward(set, false).isIdenticalTo(set));
  EXPECT_TRUE(store(Value::dictionary({{Value::null(), 1}})).dictionary().begin()->first.isNull());

  // Containers without anything to translate come back as they are.
  Value plain = Value::dictionary({{"a", Value::array({1, "b", Value::data({1})})}});
  EXPECT_TRUE(store(plain).isIdenticalTo(plain));
  EXPECT_TRUE(load(plain).isIdenticalTo(plain));
  EXPECT_TRUE(store(Value::array({plain, Value::null()})).array()[0].isIdenticalTo(plain));
}

TEST(PropertyListAdditions, ErrorsGoToTheOptionalText) {
  class Thing : public Object {};
  auto write = dataFromExtendedPropertyListFormatErrorDescription;
  std::string error = "untouched";
  EXPECT_TRUE(write(Value::null(), PropertyListFormat::Binary, &error));
  EXPECT_EQ(error, "untouched");
  EXPECT_FALSE(write(Value::array({Value(make<Thing>())}), PropertyListFormat::Binary, &error));
  EXPECT_EQ(error, "Property list cannot hold an object reference");
  EXPECT_FALSE(write(Value::dictionary({{Value::null(), 1}}), PropertyListFormat::Binary, nullptr));

  auto read = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription;
  PropertyListFormat format = PropertyListFormat::Binary;
  const Data garbage = {'<', 'p', 'l'};
  EXPECT_FALSE(read(garbage, PropertyListMutabilityOption::Immutable, &format, &error));
  EXPECT_THAT(error, HasSubstr("XML property list could not be parsed"));
  EXPECT_EQ(format, PropertyListFormat::Binary);
  EXPECT_FALSE(read(garbage, PropertyListMutabilityOption::Immutable, nullptr, nullptr));
}

}  // namespace
}  // namespace loomwork
