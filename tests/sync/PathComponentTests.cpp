// Path components: derived texts, joining and reducing, and the property-list
// and byte forms, including what they do with bytes from another device.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cmath>
#include <iterator>
#include <limits>
#include <random>

#include "loomwork/platform/Exception.h"
#include "loomwork/sync.h"

namespace loomwork {
namespace {

// The seed of the randomized tests: fixed so that a failure repeats, or
// LOOMWORK_TEST_SEED to try others.
uint64_t testSeed() {
  const char* text = std::getenv("LOOMWORK_TEST_SEED");
  return text ? std::strtoull(text, nullptr, 10) : 20261123;
}

Ref<UGMutableEntityOperation> update(std::string_view property, Value value) {
  auto op = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, "Note");
  op->setValueForProperty(std::move(value), property);
  return op;
}

Ref<UGMutableTransaction> transactionWith(std::string_view uuid, const Ref<UGEntityOperation>& op) {
  return UGMutableTransaction::transactionContainingMutableOperationForUUID(op, uuid);
}

Ref<OTPathComponent> component(const char* identifier, OTState from, OTState to,
                               Ref<UGMutableTransaction> operation = nullptr) {
  if (!operation) operation = UGMutableTransaction::transactionContainingMutableOperations();
  return make<OTPathComponent>(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(identifier),
                               std::move(operation), from, to);
}

// Seeded random extended values and transactions: every kind the byte form
// carries, nulls and sets included, nested a few levels.
class Generator {
 public:
  explicit Generator(uint64_t seed) : random_(seed) {}

  uint64_t below(uint64_t n) { return random_() % n; }

  Value value(int depth = 0) {
    switch (below(depth < 3 ? 11 : 7)) {
      case 0: return Value::null();
      case 1: return Value(below(2) == 0);
      case 2: return Value(static_cast<int64_t>(random_()));
      case 3: return Value(static_cast<int64_t>(below(40)) - 20);
      case 4: return Value(std::ldexp(static_cast<double>(random_() % 100000), -7) - 300.0);
      case 5: return Value::date(static_cast<double>(below(4000000000)) - 1000000000.0);
      case 6: return Value(text());
      case 7: {
        Array array;
        for (uint64_t i = below(4); i > 0; --i) array.push_back(value(depth + 1));
        return Value(std::move(array));
      }
      case 8: {
        Dictionary dictionary;
        for (uint64_t i = below(4); i > 0; --i) dictionary[Value(text())] = value(depth + 1);
        return Value(std::move(dictionary));
      }
      case 9: {
        Set set;
        for (uint64_t i = below(4); i > 0; --i) set.insert(value(depth + 1));
        return Value(std::move(set));
      }
      default: {
        Data bytes(below(40));
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(random_());
        return Value::data(std::move(bytes));
      }
    }
  }

  std::string text() {
    static const char* const pieces[] = {"a", "title", "Ünïcødé", "😀", " ", "-", "x\"y", "\n", "long text to pass 22 bytes"};
    std::string out;
    for (uint64_t i = below(4); i > 0; --i) out += pieces[below(std::size(pieces))];
    return out;
  }

  Ref<UGMutableTransaction> transaction() {
    auto transaction = UGMutableTransaction::transactionContainingMutableOperations();
    for (uint64_t i = below(6); i > 0; --i) {
      auto type = static_cast<UGEntityOperationType>(1 + below(4));
      auto op = make<UGMutableEntityOperation>(type, below(2) ? "Note" : "Folder");
      for (uint64_t p = below(5); p > 0; --p) op->setValueForProperty(value(), "p" + std::to_string(below(8)));
      transaction->setOperationForUUID(op, "uuid-" + std::to_string(random_()));
    }
    return transaction;
  }

  int64_t index() {
    switch (below(4)) {
      case 0: return std::numeric_limits<int64_t>::max() - static_cast<int64_t>(below(3));
      case 1: return std::numeric_limits<int64_t>::min() + static_cast<int64_t>(below(3));
      default: return static_cast<int64_t>(below(1000));
    }
  }

  Ref<OTPathComponent> pathComponent() {
    std::string identifier = OTStateSpaceIdentifier::randomDeviceIdentifier() + "-" +
                             (below(4) ? OTStateSpaceIdentifier::randomDeviceIdentifier() : text());
    return make<OTPathComponent>(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(identifier),
                                 transaction(), OTState(index(), index()), OTState(index(), index()));
  }

 private:
  std::mt19937_64 random_;
};

TEST(OTPathComponent, TextsAndSeeds) {
  auto c = component("A-B", OTState(1, 2), OTState(1, 3));
  EXPECT_EQ(c->uniqueIdentifier(), "A-B-(1,2)->(1,3)");
  EXPECT_EQ(c->pathDescription(), "(1,2)->(1,3)");
  EXPECT_TRUE(component("A-B", OTState(0, 0), OTState(1, 0))->isSeed());
  EXPECT_FALSE(component("A-B", OTState(0, 1), OTState(1, 1))->isSeed());
  EXPECT_FALSE(component("A-B", OTState(1, 0), OTState(1, 1))->isSeed());
  EXPECT_FALSE(OTPathComponent().isSeed());

  auto long_ = component("ABCDEFGH-IJ", OTState(0, 0), OTState(0, 1));
  EXPECT_EQ(long_->description(),
            "<OTPathComponent: stateSpaceId:ABCDE fromState:<OTState: s:0 c:0 > toState:<OTState: s:0 c:1 > operation:" +
                long_->operation()->description() + ">");
  // Five UTF-16 units: a character outside the basic plane takes two.
  EXPECT_NE(component("😀😀x-y", OTState(), OTState())->description().find("stateSpaceId:😀😀x "), std::string::npos);
  try {
    (void)c->description();
    FAIL() << "a short identifier was described";
  } catch (const Exception& e) {
    EXPECT_EQ(e.kind(), ExceptionKind::OutOfRange);
  }
  EXPECT_NE(OTPathComponent().description().find("stateSpaceId:nil"), std::string::npos);
}

TEST(OTPathComponent, AppendJoinsOnlyAdjacentEdgesOfOneSpace) {
  auto first = component("S-C", OTState(2, 3), OTState(2, 4), transactionWith("x", update("title", "a")));
  auto gap = component("S-C", OTState(2, 5), OTState(2, 6), transactionWith("x", update("title", "gap")));
  first->appendPathComponent(*gap);
  EXPECT_EQ(first->toState(), OTState(2, 4));
  EXPECT_EQ(first->operation()->operationForUUID("x")->valueForProperty("title"), Value("a"));
  auto otherSpace = component("S-D", OTState(2, 4), OTState(2, 5), transactionWith("y", update("n", 1)));
  first->appendPathComponent(*otherSpace);
  EXPECT_EQ(first->toState(), OTState(2, 4));

  auto next = component("S-C", OTState(2, 4), OTState(2, 5), transactionWith("x", update("title", "b")));
  next->operation()->setOperationForUUID(update("body", "n"), "y");
  first->appendPathComponent(*next);
  EXPECT_EQ(first->fromState(), OTState(2, 3));
  EXPECT_EQ(first->toState(), OTState(2, 5));
  EXPECT_EQ(first->operation()->operationForUUID("x")->valueForProperty("title"), Value("b"));
  EXPECT_EQ(first->operation()->allUUIDsArray(), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(next->fromState(), OTState(2, 4));
  EXPECT_EQ(next->operation()->count(), 2u);
}

TEST(OTPathComponent, ReduceMovesTheStartEvenWhenTheReductionLoses) {
  auto applied = component("S-C", OTState(1, 1), OTState(1, 2), transactionWith("x", update("title", "client")));
  auto mismatch = component("S-D", OTState(1, 1), OTState(2, 1), transactionWith("y", update("n", 1)));
  EXPECT_FALSE(mismatch->reduceByPathComponent(*applied));
  EXPECT_EQ(mismatch->fromState(), OTState(1, 1));
  auto elsewhere = component("S-C", OTState(0, 1), OTState(2, 1), transactionWith("y", update("n", 1)));
  EXPECT_FALSE(elsewhere->reduceByPathComponent(*applied));
  EXPECT_EQ(elsewhere->fromState(), OTState(0, 1));

  // The merged edge does not carry the client's update of x: the reduction
  // reports a loss, and the start has moved all the same.
  auto lossy = component("S-C", OTState(1, 1), OTState(2, 2), transactionWith("y", update("n", 1)));
  EXPECT_FALSE(lossy->reduceByPathComponent(*applied));
  EXPECT_EQ(lossy->fromState(), OTState(1, 2));
  EXPECT_EQ(lossy->toState(), OTState(2, 2));

  auto exact = component("S-C", OTState(1, 1), OTState(2, 2), transactionWith("x", update("title", "client")));
  exact->operation()->setOperationForUUID(update("n", 1), "y");
  EXPECT_TRUE(exact->reduceByPathComponent(*applied));
  EXPECT_EQ(exact->fromState(), OTState(1, 2));
  EXPECT_EQ(exact->operation()->allUUIDsArray(), std::vector<std::string>{"y"});
}

TEST(OTPathComponent, CopyOwnsItsOperationAndMetadataCompares) {
  auto plist = component("S-C", OTState(0, 0), OTState(0, 1), transactionWith("x", update("title", "a")))
                   ->extendedPropertyListRepresentation();
  auto original = OTPathComponent::initWithExtendedPropertyList(plist);
  ASSERT_TRUE(original);
  auto copy = original->copy();
  EXPECT_EQ(copy->stateSpaceIdentifier(), original->stateSpaceIdentifier());
  EXPECT_TRUE(copy->hasEqualMetadata(*original));
  auto held = std::dynamic_pointer_cast<UGMutableEntityOperation>(copy->operation()->mutableOperationForUUID("x"));
  ASSERT_TRUE(held);
  held->setValueForProperty(Value("changed"), "title");
  EXPECT_EQ(original->operation()->operationForUUID("x")->valueForProperty("title"), Value("a"));

  copy->setToState(OTState(0, 2));
  EXPECT_FALSE(copy->hasEqualMetadata(*original));
  copy->setToState(original->toState());
  copy->setStateSpaceIdentifier(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("S-C"));
  EXPECT_TRUE(copy->hasEqualMetadata(*original));
  copy->setStateSpaceIdentifier(nullptr);
  EXPECT_FALSE(copy->hasEqualMetadata(*original));
}

TEST(OTPathComponent, PropertyListReadingRefusesWhatIsMissingOrForeign) {
  Value good = component("S-C", OTState(1, 2), OTState(1, 3), transactionWith("x", update("t", 1)))
                   ->extendedPropertyListRepresentation();
  ASSERT_EQ(good.count(), 5u);
  ASSERT_TRUE(OTPathComponent::initWithExtendedPropertyList(good));
  auto with = [&](std::string_view key, std::optional<Value> value) {
    Dictionary d = good.dictionary();
    if (value) {
      d[Value(key)] = *value;
    } else {
      d.erase(Value(key));
    }
    return OTPathComponent::initWithExtendedPropertyList(Value(std::move(d)));
  };
  EXPECT_FALSE(with(kVersion, Value(2)));
  EXPECT_FALSE(with(kVersion, Value("1")));
  EXPECT_FALSE(with(kVersion, std::nullopt));
  EXPECT_FALSE(with(kOperation, std::nullopt));
  EXPECT_FALSE(with(kOperation, Value("op")));
  EXPECT_FALSE(with(kStateSpaceIdentifier, std::nullopt));
  EXPECT_FALSE(with(kStateSpaceIdentifier, Value(12345)));
  EXPECT_FALSE(with(kFromState, std::nullopt));
  EXPECT_FALSE(with(kToState, std::nullopt));
  EXPECT_FALSE(OTPathComponent::initWithExtendedPropertyList(Value::array({good})));

  // A state that does not read leaves the component without it.
  auto halfState = with(kFromState, Value::dictionary({{"s", 2}}));
  ASSERT_TRUE(halfState);
  EXPECT_FALSE(halfState->fromState());
  EXPECT_EQ(halfState->toState(), OTState(1, 3));
  EXPECT_FALSE(halfState->isSeed());
  EXPECT_EQ(halfState->pathDescription(), "(0,0)->(1,3)");
  // Operations of an unknown type are carried as they are.
  auto unknownType = with(kOperation, Value::dictionary({{"u", Value::dictionary({{"t", 7}, {"e", "N"}, {"p", Value::dictionary({})}})}}));
  ASSERT_TRUE(unknownType);
  EXPECT_EQ(unknownType->operation()->operationForUUID("u")->type(), static_cast<UGEntityOperationType>(7));

  auto expectInvalid = [](const OTPathComponent& c) {
    try {
      (void)c.extendedPropertyListRepresentation();
      ADD_FAILURE() << "an incomplete component was written";
    } catch (const Exception& e) {
      EXPECT_EQ(e.kind(), ExceptionKind::InvalidArgument);
    }
    EXPECT_THROW((void)c.data(), Exception);
  };
  expectInvalid(*halfState);
  auto noIdentifier = halfState->copy();
  noIdentifier->setFromState(OTState());
  noIdentifier->setStateSpaceIdentifier(make<OTStateSpaceIdentifier>());
  expectInvalid(*noIdentifier);
  noIdentifier->setStateSpaceIdentifier(nullptr);
  expectInvalid(*noIdentifier);

  auto holdsObject = component("S-C", OTState(), OTState(0, 1), transactionWith("x", update("o", Value(make<Object>()))));
  EXPECT_FALSE(holdsObject->data());
}

TEST(OTPathComponent, RandomComponentsRoundTrip) {
  const uint64_t seed = testSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator generate(seed);
  for (int i = 0; i < 300; ++i) {
    Ref<OTPathComponent> original = generate.pathComponent();
    Value plist = original->extendedPropertyListRepresentation();
    Ref<OTPathComponent> fromPlist = OTPathComponent::initWithExtendedPropertyList(plist);
    ASSERT_TRUE(fromPlist) << i;
    EXPECT_TRUE(fromPlist->hasEqualMetadata(*original));
    EXPECT_EQ(fromPlist->extendedPropertyListRepresentation(), plist);

    std::optional<Data> bytes = original->data();
    ASSERT_TRUE(bytes) << i;
    ASSERT_EQ(std::string_view(reinterpret_cast<const char*>(bytes->data()), 8), "bplist00");
    Ref<OTPathComponent> fromBytes = OTPathComponent::initWithData(*bytes);
    ASSERT_TRUE(fromBytes) << i;
    EXPECT_TRUE(fromBytes->hasEqualMetadata(*original));
    EXPECT_EQ(fromBytes->uniqueIdentifier(), original->uniqueIdentifier());
    EXPECT_EQ(fromBytes->extendedPropertyListRepresentation(), plist) << plist.description();
    EXPECT_TRUE(fromBytes->operation()->containsMutableOperations());
  }
}

TEST(OTPathComponent, DamagedBytesNeverCrash) {
  const uint64_t seed = testSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator generate(seed);
  EXPECT_FALSE(OTPathComponent::initWithData({}));
  const uint8_t junk[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0xD5, 0, 1};
  EXPECT_FALSE(OTPathComponent::initWithData(junk));
  int survived = 0;
  for (int i = 0; i < 2000; ++i) {
    Data bytes = *generate.pathComponent()->data();
    switch (generate.below(3)) {
      case 0: bytes.resize(generate.below(bytes.size())); break;
      case 1:
        for (uint64_t n = 1 + generate.below(4); n > 0; --n) bytes[generate.below(bytes.size())] ^= 1 << generate.below(8);
        break;
      default: bytes[8 + generate.below(bytes.size() - 8)] = static_cast<uint8_t>(generate.below(256)); break;
    }
    Ref<OTPathComponent> read = OTPathComponent::initWithData(bytes);
    if (!read) continue;
    ++survived;
    (void)read->uniqueIdentifier();
    (void)read->isSeed();
    if (read->fromState() && read->toState()) {
      Ref<OTPathComponent> again = OTPathComponent::initWithData(*read->data());
      ASSERT_TRUE(again);
      EXPECT_EQ(again->extendedPropertyListRepresentation(), read->extendedPropertyListRepresentation());
    }
  }
  RecordProperty("survived", survived);
}

}  // namespace
}  // namespace loomwork
