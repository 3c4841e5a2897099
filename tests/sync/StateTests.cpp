// States, state-space identifiers and LWIsEqual.
#include <gtest/gtest.h>

#include <cctype>
#include <limits>
#include <random>

#include "loomwork/platform/Exception.h"
#include "loomwork/sync.h"

namespace loomwork {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(OTState, BaseStateHashAndUpdates) {
  EXPECT_EQ(OTState::baseStateOfStateAndState(OTState(3, 1), OTState(2, 5)), OTState(2, 1));
  EXPECT_EQ(OTState(5, 5).hash(), 0u);
  EXPECT_EQ(OTState(0, 0).hash(), 0u);
  EXPECT_EQ(OTState(4, 7).stateByUpdatingServerIndex(9), OTState(9, 7));
  EXPECT_EQ(OTState(4, 7).stateByUpdatingClientIndex(9), OTState(4, 9));
  EXPECT_FALSE(OTState(1, 2).isEqual(std::optional<OTState>()));
  EXPECT_EQ(OTState(1, -2).description(), "<OTState: s:1 c:-2 >");

  std::mt19937_64 random(20261123);
  for (int i = 0; i < 2000; ++i) {
    SCOPED_TRACE(i);
    OTState a(static_cast<int64_t>(random() % 5), static_cast<int64_t>(random() % 5));
    OTState b(static_cast<int64_t>(random() % 5), static_cast<int64_t>(random() % 5));
    if (a == b) {
      EXPECT_EQ(a.hash(), b.hash());
      EXPECT_EQ(OTStateHash()(a), OTStateHash()(b));
    }
    OTState base = OTState::baseStateOfStateAndState(a, b);
    EXPECT_LE(base.serverIndex(), std::min(a.serverIndex(), b.serverIndex()));
    EXPECT_TRUE(base.serverIndex() == a.serverIndex() || base.serverIndex() == b.serverIndex());
    EXPECT_TRUE(base.clientIndex() == a.clientIndex() || base.clientIndex() == b.clientIndex());
    EXPECT_LE(base.clientIndex(), std::min(a.clientIndex(), b.clientIndex()));
  }
}

TEST(OTState, PropertyListFormAndRefusals) {
  Value plist = OTState(2, 7).extendedPropertyListRepresentation();
  EXPECT_EQ(plist, Value::dictionary({{"s", 2}, {"c", 7}}));
  EXPECT_EQ(plist.count(), 2u);
  for (OTState state : {OTState(kMin, kMax), OTState(kMax, kMin), OTState(-1, 0)}) {
    EXPECT_EQ(OTState::initWithExtendedPropertyList(state.extendedPropertyListRepresentation()), state);
  }
  const Value refused[] = {
      Value::dictionary({{"s", 2}}),
      Value::dictionary({{"c", 2}}),
      Value::dictionary({{"s", 2}, {"c", "7"}}),
      Value::dictionary({{"s", 2.5}, {"c", 7}}),
      Value::dictionary({{"s", 1e300}, {"c", 7}}),
      Value::dictionary({{"s", true}, {"c", 7}}),
      Value::dictionary({{"s", Value::null()}, {"c", 7}}),
      Value::array({2, 7}),
      Value("s"),
      Value::null(),
  };
  for (const Value& plist : refused) {
    EXPECT_FALSE(OTState::initWithExtendedPropertyList(plist)) << plist.description();
  }
  EXPECT_EQ(OTState::initWithExtendedPropertyList(Value::dictionary({{"s", 1}, {"c", 2}, {"x", "y"}})),
            OTState(1, 2));
}

TEST(OTStateSpaceIdentifier, PartsAndTypes) {
  auto serverOnly = OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier("AB", std::nullopt);
  EXPECT_EQ(serverOnly->fullIdentifier(), "AB-");
  EXPECT_EQ(serverOnly->serverIdentifier(), "AB");
  EXPECT_EQ(serverOnly->clientIdentifier(), std::nullopt);
  auto clientOnly = OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(std::nullopt, "CD");
  EXPECT_EQ(clientOnly->fullIdentifier(), "-CD");
  EXPECT_EQ(clientOnly->serverIdentifier(), std::nullopt);
  EXPECT_EQ(clientOnly->clientIdentifier(), "CD");
  auto none = OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(std::nullopt, std::nullopt);
  EXPECT_EQ(none->fullIdentifier(), std::nullopt);
  EXPECT_EQ(none->description(), "nil");

  for (const char* full : {"A-B-C", "AB", "", "-", "A--B"}) {
    auto identifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(full);
    EXPECT_EQ(identifier->serverIdentifier(), std::nullopt) << full;
    EXPECT_EQ(identifier->clientIdentifier(), std::nullopt) << full;
  }

  auto asServer = OTStateSpaceIdentifier::stateSpaceIdentifierWithLocalIdentifierRemoteIdentifierType("L", "R", 0);
  auto asClient = OTStateSpaceIdentifier::stateSpaceIdentifierWithLocalIdentifierRemoteIdentifierType("L", "R", 1);
  EXPECT_EQ(asServer->fullIdentifier(), "L-R");
  EXPECT_EQ(asClient->fullIdentifier(), "R-L");
  for (uint64_t type : {0u, 1u}) {
    auto identifier = type == 0 ? asServer : asClient;
    EXPECT_EQ(identifier->localDeviceIdentifierForType(type), "L");
    EXPECT_EQ(identifier->remoteDeviceIdentifierForType(type), "R");
    EXPECT_EQ(identifier->description(), *identifier->fullIdentifier());
  }

  std::string device = OTStateSpaceIdentifier::randomDeviceIdentifier();
  EXPECT_EQ(device.size(), 32u);
  for (char c : device) EXPECT_TRUE(std::isdigit(c) || (c >= 'A' && c <= 'F')) << device;
  EXPECT_NE(device, OTStateSpaceIdentifier::randomDeviceIdentifier());
  auto paired = OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(
      device, OTStateSpaceIdentifier::randomDeviceIdentifier());
  EXPECT_EQ(paired->serverIdentifier(), device);
}

TEST(OTStateSpaceIdentifier, EqualityAndLWIsEqual) {
  auto a1 = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("A-B");
  auto a2 = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("A-B");
  auto b = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("A-C");
  auto absent1 = make<OTStateSpaceIdentifier>();
  auto absent2 = make<OTStateSpaceIdentifier>();
  EXPECT_TRUE(a1->isEqual(*a2));
  EXPECT_EQ(a1->hash(), a2->hash());
  EXPECT_FALSE(a1->isEqual(*b));
  EXPECT_TRUE(absent1->isEqual(*absent2));
  EXPECT_FALSE(absent1->isEqual(*a1));
  EXPECT_FALSE(LWIsEqual(a1, Ref<OTStateSpaceIdentifier>()));
  EXPECT_TRUE(LWIsEqual(Ref<OTStateSpaceIdentifier>(), Ref<OTStateSpaceIdentifier>()));
  EXPECT_FALSE(a1->isEqual(Object()));

  // Values: identity, absence and the null value come before value equality.
  Value array = Value::array({1, 2});
  EXPECT_TRUE(LWIsEqual(std::optional<Value>(array), std::optional<Value>(array)));
  EXPECT_TRUE(LWIsEqual(std::optional<Value>(array), std::optional<Value>(Value::array({1.0, 2}))));
  EXPECT_TRUE(LWIsEqual(std::optional<Value>(), std::optional<Value>()));
  EXPECT_FALSE(LWIsEqual(std::optional<Value>(), std::optional<Value>(Value::null())));
  EXPECT_TRUE(LWIsEqual(std::optional<Value>(Value::null()), std::optional<Value>(Value::null())));
  EXPECT_FALSE(LWIsEqual(std::optional<Value>(Value::null()), std::optional<Value>(0)));
  EXPECT_FALSE(LWIsEqual(std::optional<Value>(1), std::optional<Value>(2)));
  EXPECT_TRUE(LWIsEqual(std::optional<OTState>(), std::optional<OTState>()));
  EXPECT_FALSE(LWIsEqual(std::optional<OTState>(OTState()), std::optional<OTState>()));
}

}  // namespace
}  // namespace loomwork
