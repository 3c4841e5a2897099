// States, state-space identifiers and LWIsEqual.
#include <gtest/gtest.h>

#include <cctype>
#include <limits>

#include "loomwork/sync.h"

namespace loomwork {
namespace {

TEST(OTState, ValuesAndPropertyListForm) {
  EXPECT_EQ(OTState::baseStateOfStateAndState(OTState(3, 1), OTState(2, 5)), OTState(2, 1));
  EXPECT_TRUE(OTState(5, 5).hash() == 0u && OTState(0, 0).hash() == 0u);
  EXPECT_FALSE(OTState(1, 2).isEqual(std::optional<OTState>()));
  EXPECT_EQ(OTState(1, -2).description(), "<OTState: s:1 c:-2 >");

  EXPECT_EQ(OTState(2, 7).extendedPropertyListRepresentation(), Value::dictionary({{"s", 2}, {"c", 7}}));
  const OTState extreme(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(OTState::initWithExtendedPropertyList(extreme.extendedPropertyListRepresentation()), extreme);
  // Only integer entries read: a real or a boolean is not what a peer meant.
  for (const Value& refused : {Value::dictionary({{"s", 2}}), Value::dictionary({{"s", 2}, {"c", "7"}}),
                               Value::dictionary({{"s", 1e300}, {"c", 7}}), Value::dictionary({{"s", true}, {"c", 7}}),
                               Value::array({2, 7}), Value::null()}) {
    EXPECT_FALSE(OTState::initWithExtendedPropertyList(refused)) << refused.description();
  }
}

TEST(OTStateSpaceIdentifier, PartsTypesAndEqualityWithLWIsEqual) {
  using Identifier = OTStateSpaceIdentifier;
  auto serverOnly = Identifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier("AB", std::nullopt);
  EXPECT_TRUE(serverOnly->fullIdentifier() == "AB-" && serverOnly->serverIdentifier() == "AB" &&
              !serverOnly->clientIdentifier());
  auto clientOnly = Identifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(std::nullopt, "CD");
  EXPECT_TRUE(clientOnly->fullIdentifier() == "-CD" && !clientOnly->serverIdentifier());
  auto none = Identifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(std::nullopt, std::nullopt);
  EXPECT_EQ(none->fullIdentifier(), std::nullopt);
  for (const char* full : {"A-B-C", "AB", "-", "A--B"}) {
    EXPECT_FALSE(Identifier(full).serverIdentifier() || Identifier(full).clientIdentifier()) << full;
  }
  for (uint64_t type : {0u, 1u}) {
    auto identifier = Identifier::stateSpaceIdentifierWithLocalIdentifierRemoteIdentifierType("L", "R", type);
    EXPECT_EQ(identifier->description(), type == 0 ? "L-R" : "R-L");
    EXPECT_TRUE(identifier->localDeviceIdentifierForType(type) == "L" &&
                identifier->remoteDeviceIdentifierForType(type) == "R");
  }
  std::string device = Identifier::randomDeviceIdentifier();
  EXPECT_EQ(device.size(), 32u);
  for (char c : device) EXPECT_TRUE(std::isdigit(c) || (c >= 'A' && c <= 'F')) << device;
  EXPECT_NE(device, Identifier::randomDeviceIdentifier());

  EXPECT_TRUE(Identifier("A-B").isEqual(Identifier("A-B")) && Identifier("A-B").hash() == Identifier("A-B").hash());
  EXPECT_TRUE(!Identifier("A-B").isEqual(Identifier("A-C")) && Identifier().isEqual(Identifier()));
  EXPECT_FALSE(Identifier().isEqual(Identifier("A-B")));
  EXPECT_FALSE(LWIsEqual(none, Ref<Identifier>()));
  EXPECT_TRUE(LWIsEqual(Ref<Identifier>(), Ref<Identifier>()));

  // Absence and the null value come before value equality.
  using V = std::optional<Value>;
  Value array = Value::array({1, 2});
  EXPECT_TRUE(LWIsEqual(V(array), V(Value::array({1.0, 2}))));
  EXPECT_TRUE(LWIsEqual(V(), V()) && LWIsEqual(V(Value::null()), V(Value::null())));
  EXPECT_FALSE(LWIsEqual(V(), V(Value::null())) || LWIsEqual(V(Value::null()), V(0)));
  EXPECT_FALSE(LWIsEqual(std::optional<OTState>(OTState()), std::optional<OTState>()));
}

}  // namespace
}  // namespace loomwork
