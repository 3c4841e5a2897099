// The linearizer's worked batches, its delegate, and its misuse errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loomwork/listtransform.h"

namespace loomwork {
namespace {

std::vector<std::string> run(const std::function<void(TWArrayOperationLinearizer&)>& batch) {
  TWArrayOperationLinearizer linearizer;
  linearizer.beginUpdates();
  batch(linearizer);
  std::vector<std::string> steps;
  linearizer.endUpdatesWithInsertBlockRemoveBlockMoveBlock(
      [&](int64_t i) { steps.push_back("insert " + std::to_string(i)); },
      [&](int64_t i) { steps.push_back("remove " + std::to_string(i)); },
      [&](int64_t f, int64_t t) { steps.push_back("move " + std::to_string(f) + " " + std::to_string(t)); });
  return steps;
}

using Steps = std::vector<std::string>;

TEST(Linearizer, WorkedBatches) {
  const IndexSet odd{1, 3}, from{0, 5}, to{3, 1};
  const std::pair<std::function<void(TWArrayOperationLinearizer&)>, Steps> cases[] = {
      {[&](auto& l) { l.removeObjectsAtIndexes(odd); }, {"remove 3", "remove 1"}},
      {[](auto& l) { l.moveObjectAtIndexToIndex(0, 2); }, {"move 0 2"}},
      {[](auto& l) { l.removeObjectAtIndex(0), l.moveObjectAtIndexToIndex(2, 0); }, {"move 2 1", "remove 0"}},
      {[](auto& l) { l.insertObjectAtIndex(4), l.insertObjectAtIndex(1), l.removeObjectAtIndex(2); },
       {"remove 2", "insert 1", "insert 4"}},
      {[&](auto& l) { l.moveObjectsAtIndexesToIndexes(from, to); }, {"move 5 3", "move 0 1"}},
      {[](auto&) {}, {}},
      {[](auto& l) { l.insertObjectAtIndex(-1); }, {}},  // an operation from -1 to -1 is invalid and is left out
  };
  for (const auto& [batch, steps] : cases) EXPECT_EQ(run(batch), steps);
}

TEST(Linearizer, OperationsAndTheirDescriptions) {
  EXPECT_EQ(TWArrayOperation(-1, 3).description(), "<TWArrayOperation> INSERT to index: 3");
  EXPECT_EQ(TWArrayOperation(2, -1).description(), "<TWArrayOperation> REMOVE from index: 2");
  EXPECT_EQ(TWArrayOperation(2, 5).description(), "<TWArrayOperation> MOVE from index: 2 to index: 5");
  EXPECT_EQ(TWArrayOperation(-1, -1).description(), "<TWArrayOperation> INVALID from index: -1, to index: -1");
  EXPECT_FALSE(TWArrayOperation(-2, 4).isValid());
  EXPECT_TRUE(TWArrayOperation(0, 0).isMove());

  // Empty blocks are skipped.
  TWArrayOperationLinearizer linearizer;
  linearizer.beginUpdates();
  linearizer.insertObjectAtIndex(1);
  linearizer.moveObjectAtIndexToIndex(0, 2);
  EXPECT_NO_THROW(linearizer.endUpdatesWithInsertBlockRemoveBlockMoveBlock(nullptr, nullptr, nullptr));
}

class Recorder : public TWArrayOperationLinearizerDelegate {
 public:
  std::vector<std::string> calls;
  void arrayOperationLinearizerWillBeginUpdates(TWArrayOperationLinearizer&) override { calls.push_back("begin"); }
  void arrayOperationLinearizerRemoveObjectAtIndex(TWArrayOperationLinearizer&, int64_t i) override {
    calls.push_back("remove " + std::to_string(i));
  }
  void arrayOperationLinearizerMoveObjectAtIndexToIndex(TWArrayOperationLinearizer&, int64_t f, int64_t t) override {
    calls.push_back("move " + std::to_string(f) + " " + std::to_string(t));
  }
  void arrayOperationLinearizerInsertObjectAtIndex(TWArrayOperationLinearizer&, int64_t i) override {
    calls.push_back("insert " + std::to_string(i));
  }
  void arrayOperationLinearizerDidEndUpdates(TWArrayOperationLinearizer&) override { calls.push_back("end"); }
};

TEST(Linearizer, DelegateHearsTheBatchInOrderAndIsNotOwned) {
  auto recorder = std::make_shared<Recorder>();
  auto linearizer = TWArrayOperationLinearizer::arrayOperationLinearizer();
  linearizer->setDelegate(recorder);
  for (int round = 0; round < 2; ++round) {
    linearizer->beginUpdates();
    linearizer->insertObjectAtIndex(0);
    linearizer->removeObjectAtIndex(1);
    linearizer->endUpdates();
  }
  EXPECT_EQ(recorder->calls, (Steps{"begin", "remove 1", "insert 0", "end", "begin", "remove 1", "insert 0", "end"}));
  std::weak_ptr<Recorder> weak = recorder;
  recorder.reset();
  EXPECT_TRUE(weak.expired());
  linearizer->beginUpdates();
  linearizer->insertObjectAtIndex(0);
  EXPECT_NO_THROW(linearizer->endUpdates());
}

TEST(Linearizer, MisuseThrowsWithTheReasonTexts) {
  auto reason = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const Exception& e) {
      return std::string(Exception::kindName(e.kind())) + ": " + e.what();
    }
    return "no exception";
  };
  TWArrayOperationLinearizer l;
  EXPECT_EQ(reason([&] { l.endUpdates(); }),
            "internal inconsistency: Called endUpdates without previously calling beginUpdates");
  EXPECT_EQ(reason([&] { l.insertObjectAtIndex(0); }),
            "internal inconsistency: Can't insert, beginUpdates wasn't called");
  EXPECT_EQ(reason([&] { l.removeObjectsAtIndexes(IndexSet{1}); }),
            "internal inconsistency: Can't remove, beginUpdates wasn't called");
  EXPECT_EQ(reason([&] { l.moveObjectAtIndexToIndex(0, 1); }),
            "internal inconsistency: Can't move, beginUpdates wasn't called");
  l.beginUpdates();
  EXPECT_EQ(reason([&] { l.beginUpdates(); }),
            "internal inconsistency: Called beginUpdates for the second time without previously calling endUpdates");
  EXPECT_EQ(reason([&] {
              l.moveObjectsAtIndexesToIndexes(IndexSet{1, 2}, IndexSet{3});
            }),
            "invalid argument: [TWArrayOperationLinearizer moveObjectsAtIndexesToIndexes] Argument `atIndexes` and "
            "`toIndexes` must contain the same count of indexes but don't");
  l.endUpdates();
  EXPECT_EQ(reason([&] { l.endUpdatesWithInsertBlockRemoveBlockMoveBlock(nullptr, nullptr, nullptr); }),
            "internal inconsistency: Called endUpdates without previously calling beginUpdates");
}

}  // namespace
}  // namespace loomwork
