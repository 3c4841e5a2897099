// Path components: texts, joining and reducing, and the property-list and
// byte forms, including what they do with bytes from another device.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>

#include "loomwork/platform/Exception.h"
#include "loomwork/sync.h"

namespace loomwork {
namespace {

// Fixed so that a failure repeats; LOOMWORK_TEST_SEED tries others.
uint64_t testSeed() {
  const char* text = std::getenv("LOOMWORK_TEST_SEED");
  return text ? std::strtoull(text, nullptr, 10) : 20261123;
}

Ref<UGMutableTransaction> updating(std::string_view uuid, std::string_view property, Value value) {
  auto op = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, "Note");
  op->setValueForProperty(std::move(value), property);
  return UGMutableTransaction::transactionContainingMutableOperationForUUID(op, uuid);
}

Ref<OTPathComponent> component(const char* identifier, OTState from, OTState to,
                               Ref<UGMutableTransaction> operation = UGMutableTransaction::transaction()) {
  return make<OTPathComponent>(make<OTStateSpaceIdentifier>(identifier), std::move(operation), from, to);
}

ExceptionKind thrownKind(const std::function<void()>& f) {
  try {
    f();
  } catch (const Exception& e) {
    return e.kind();
  }
  ADD_FAILURE() << "nothing thrown";
  return ExceptionKind::InternalInconsistency;
}

TEST(OTPathComponent, Texts) {
  auto c = component("A-B", OTState(1, 2), OTState(1, 3));
  EXPECT_EQ(c->uniqueIdentifier(), "A-B-(1,2)->(1,3)");
  EXPECT_TRUE(component("A-B", OTState(0, 0), OTState(1, 0))->isSeed());
  EXPECT_FALSE(component("A-B", OTState(0, 1), OTState(1, 1))->isSeed() ||
               component("A-B", OTState(1, 0), OTState(1, 1))->isSeed());
  auto named = component("ABCDEFGH-IJ", OTState(0, 0), OTState(0, 1));
  EXPECT_EQ(named->description(),
            "<OTPathComponent: stateSpaceId:ABCDE fromState:<OTState: s:0 c:0 > toState:<OTState: "
            "s:0 c:1 > operation:" +
                named->operation()->description() + ">");
  // Five UTF-16 units, and a character outside the basic plane is two.
  EXPECT_NE(component("😀😀x-y", {}, {})->description().find("stateSpaceId:😀😀x "), std::string::npos);
  EXPECT_EQ(thrownKind([&] { (void)c->description(); }), ExceptionKind::OutOfRange);
  EXPECT_EQ(thrownKind([&] { (void)component("😀-A", {}, {})->description(); }), ExceptionKind::OutOfRange);
}

TEST(OTPathComponent, AppendAndReduce) {
  auto first = component("S-C", OTState(2, 3), OTState(2, 4), updating("x", "title", "a"));
  first->appendPathComponent(*component("S-C", OTState(2, 5), OTState(2, 6), updating("x", "title", "gap")));
  first->appendPathComponent(*component("S-D", OTState(2, 4), OTState(2, 5), updating("x", "title", "other")));
  EXPECT_EQ(first->toState(), OTState(2, 4));
  EXPECT_EQ(first->operation()->operationForUUID("x")->valueForProperty("title"), Value("a"));
  auto next = component("S-C", OTState(2, 4), OTState(2, 5), updating("y", "body", "n"));
  first->appendPathComponent(*next);
  EXPECT_EQ(first->pathDescription(), "(2,3)->(2,5)");
  EXPECT_EQ(first->operation()->allUUIDsArray(), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(next->operation()->count(), 1u);

  auto applied = component("S-C", OTState(1, 1), OTState(1, 2), updating("x", "title", "client"));
  auto otherSpace = component("S-D", OTState(1, 1), OTState(2, 1), updating("y", "n", 1));
  auto elsewhere = component("S-C", OTState(0, 1), OTState(2, 1), updating("y", "n", 1));
  EXPECT_FALSE(otherSpace->reduceByPathComponent(*applied) || elsewhere->reduceByPathComponent(*applied));
  EXPECT_TRUE(otherSpace->fromState() == OTState(1, 1) && elsewhere->fromState() == OTState(0, 1));
  // The edge lacks the client's update of x: the reduction reports the loss,
  // and the start has moved all the same.
  auto lossy = component("S-C", OTState(1, 1), OTState(2, 2), updating("y", "n", 1));
  EXPECT_FALSE(lossy->reduceByPathComponent(*applied));
  EXPECT_EQ(lossy->pathDescription(), "(1,2)->(2,2)");
  auto exact = component("S-C", OTState(1, 1), OTState(2, 2), updating("x", "title", "client"));
  EXPECT_TRUE(exact->reduceByPathComponent(*applied));
  EXPECT_EQ(exact->pathDescription(), "(1,2)->(2,2)");
  EXPECT_EQ(exact->operation()->count(), 0u);
}

TEST(OTPathComponent, CopyOwnsItsOperation) {
  auto original = OTPathComponent::initWithExtendedPropertyList(
      component("S-C", OTState(0, 0), OTState(0, 1), updating("x", "title", "a"))
          ->extendedPropertyListRepresentation());
  ASSERT_TRUE(original);
  auto copy = original->copy();
  EXPECT_TRUE(copy->hasEqualMetadata(*original));
  std::dynamic_pointer_cast<UGMutableEntityOperation>(copy->operation()->operationForUUID("x"))
      ->setValueForProperty(Value("changed"), "title");
  EXPECT_EQ(original->operation()->operationForUUID("x")->valueForProperty("title"), Value("a"));
  copy->setStateSpaceIdentifier(make<OTStateSpaceIdentifier>("S-C"));  // equal, not the same
  EXPECT_TRUE(copy->hasEqualMetadata(*original));
  copy->setToState(OTState(0, 2));
  EXPECT_FALSE(copy->hasEqualMetadata(*original));
}

TEST(OTPathComponent, ReadingRefusesWhatIsMissingOrForeign) {
  Value good =
      component("S-C", OTState(1, 2), OTState(1, 3), updating("x", "t", 1))->extendedPropertyListRepresentation();
  ASSERT_EQ(good.count(), 5u);
  auto with = [&](std::string_view key, std::optional<Value> value) {
    Dictionary d = good.dictionary();
    value ? void(d[Value(key)] = *value) : void(d.erase(Value(key)));
    return OTPathComponent::initWithExtendedPropertyList(Value(std::move(d)));
  };
  // clang-format off
  const std::pair<std::string_view, std::optional<Value>> refused[] = {
      {kVersion, 2}, {kVersion, "1"}, {kVersion, std::nullopt}, {kOperation, std::nullopt}, {kOperation, "op"},
      {kStateSpaceIdentifier, std::nullopt}, {kStateSpaceIdentifier, 12345}, {kFromState, std::nullopt},
      {kToState, std::nullopt}};
  // clang-format on
  for (const auto& [key, value] : refused) EXPECT_FALSE(with(key, value)) << key;

  // A state that does not read is left absent, and such a component cannot
  // be written again.
  auto halfState = with(kFromState, Value::dictionary({{"s", 2}}));
  ASSERT_TRUE(halfState);
  EXPECT_FALSE(halfState->fromState());
  EXPECT_EQ(halfState->pathDescription(), "(0,0)->(1,3)");
  EXPECT_EQ(thrownKind([&] { (void)halfState->data(); }), ExceptionKind::InvalidArgument);
  halfState->setFromState(OTState());
  halfState->setStateSpaceIdentifier(make<OTStateSpaceIdentifier>());
  EXPECT_EQ(thrownKind([&] { (void)halfState->extendedPropertyListRepresentation(); }), ExceptionKind::InvalidArgument);
  // Operations of an unknown type are carried as they are.
  auto unknown = with(
      kOperation, Value::dictionary({{"u", Value::dictionary({{"t", 7}, {"e", "N"}, {"p", Value::dictionary({})}})}}));
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->operation()->operationForUUID("u")->type(), static_cast<UGEntityOperationType>(7));
  EXPECT_FALSE(component("S-C", {}, {}, updating("x", "o", Value(make<Object>())))->data());
}

// Random components of every value kind the byte form carries (nulls and sets
// too), with indexes at both ends of the 64-bit range.
class Generator {
 public:
  explicit Generator(uint64_t seed) : random_(seed) {}
  uint64_t below(uint64_t n) { return random_() % n; }

  Value value(int depth = 0) {
    // clang-format off
    switch (below(depth < 3 ? 10 : 6)) {
      case 0: return Value::null();
      case 1: return Value(static_cast<int64_t>(random_()));
      case 2: return Value(std::ldexp(static_cast<double>(below(100000)), -7) - 300.0);
      case 3: return Value::date(static_cast<double>(below(4000000000)) - 1e9);
      case 4: return Value(std::string(below(30), static_cast<char>('a' + below(3))) + (below(2) ? "Ü😀" : ""));
      case 5: return Value::data(Data(below(40), static_cast<uint8_t>(random_())));
      case 6: return Value(below(2) == 0);
      case 7: return Value::array({value(depth + 1), value(depth + 1)});
      case 8: return Value::dictionary({{"k" + std::to_string(below(3)), value(depth + 1)}});
      default: return Value::set({value(depth + 1), value(depth + 1)});
    }
    // clang-format on
  }
  int64_t index() {
    int64_t near = static_cast<int64_t>(below(3));
    return below(2) ? static_cast<int64_t>(below(1000)) : below(2) ? INT64_MAX - near : INT64_MIN + near;
  }
  Ref<OTPathComponent> pathComponent() {
    auto transaction = UGMutableTransaction::transactionContainingMutableOperations();
    for (uint64_t i = below(5); i > 0; --i) {
      auto op = make<UGMutableEntityOperation>(static_cast<UGEntityOperationType>(1 + below(4)), "Note");
      for (uint64_t p = below(5); p > 0; --p) op->setValueForProperty(value(), "p" + std::to_string(below(8)));
      transaction->setOperationForUUID(op, OTStateSpaceIdentifier::randomDeviceIdentifier());
    }
    std::string identifier = OTStateSpaceIdentifier::randomDeviceIdentifier() + "-" + std::to_string(random_());
    return make<OTPathComponent>(make<OTStateSpaceIdentifier>(identifier), transaction, OTState(index(), index()),
                                 OTState(index(), index()));
  }

 private:
  std::mt19937_64 random_;
};

TEST(OTPathComponent, RandomComponentsRoundTripAndDamagedBytesNeverCrash) {
  const uint64_t seed = testSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator generate(seed);
  EXPECT_FALSE(OTPathComponent::initWithData({}));
  for (int i = 0; i < 1000; ++i) {
    Ref<OTPathComponent> original = generate.pathComponent();
    Value plist = original->extendedPropertyListRepresentation();
    Ref<OTPathComponent> fromPlist = OTPathComponent::initWithExtendedPropertyList(plist);
    ASSERT_TRUE(fromPlist && fromPlist->hasEqualMetadata(*original)) << i;
    EXPECT_EQ(fromPlist->extendedPropertyListRepresentation(), plist);
    Data bytes = original->data().value();
    Ref<OTPathComponent> fromBytes = OTPathComponent::initWithData(bytes);
    ASSERT_TRUE(fromBytes && fromBytes->hasEqualMetadata(*original)) << i;
    EXPECT_EQ(fromBytes->extendedPropertyListRepresentation(), plist) << plist.description();
    EXPECT_TRUE(fromBytes->operation()->containsMutableOperations());

    // Damaged on the way: read or refused, never a crash, and what reads
    // writes and reads again.
    if (generate.below(2)) {
      bytes.resize(generate.below(bytes.size()));
    } else {
      for (uint64_t n = 1 + generate.below(4); n > 0; --n)
        bytes[generate.below(bytes.size())] ^= 1 << generate.below(8);
    }
    Ref<OTPathComponent> damaged = OTPathComponent::initWithData(bytes);
    if (damaged && damaged->fromState() && damaged->toState()) {
      Ref<OTPathComponent> again = OTPathComponent::initWithData(damaged->data().value());
      ASSERT_TRUE(again && again->hasEqualMetadata(*damaged));
    }
  }
}

}  // namespace
}  // namespace loomwork
