// The rows of every segment of random trees stay consistent with what the
// segments publish: after every pass each segment's "items" transform turns
// its rows from before the pass into its rows after it, also replayed step by
// step, and every count, lookup and index mapping agrees with the rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "SegmentTestSupport.h"
#include "loomwork/listtransform/ListTransformArrayOperations.h"

namespace loomwork::testing {
namespace {

bool sameRow(const Value& a, const Value& b) { return a.tryObject() == b.tryObject() && a.kind() == b.kind(); }

std::vector<Ref<SGSegment>> segmentsUnder(SGSegment& top) {
  std::vector<Ref<SGSegment>> segments;
  top.depthFirstSearch([&](SGSegment& segment, bool&) { segments.push_back(segment.ref<SGSegment>()); });
  return segments;
}

class RowValidator {
 public:
  explicit RowValidator(uint64_t seed) : random_(seed) {
    root_ = make<DriverGroup>(std::string("root"));
    root_->onExit = [this](NPWNotification& notification) { validatePass(&notification); };
    const int64_t children = below(4);
    for (int64_t i = 0; i < children; ++i) root_->addSegment(subtree(1));
    remember();
  }
  ~RowValidator() { root_->onExit = nullptr; }

  // One step: a single change outside a pass, or several inside one.
  void step() {
    const int64_t passesBefore = root_->passes;
    if (chance(0.5)) {
      changedLists_.clear();
      const int64_t changes = 2 + below(4);
      inPass_ = true;
      root_->inOnePass([&] {
        for (changeInPass_ = 0; changeInPass_ < changes && failure_.empty(); ++changeInPass_) change();
      });
      inPass_ = false;
      unvisited_.clear();
    } else {
      changedLists_.clear();
      change();
    }
    // A change that published nothing ran no pass; then nothing may differ.
    if (root_->passes == passesBefore) validatePass(nullptr);
    for (const Ref<SGSegment>& segment : detached_) pool_.push_back(segment);
    detached_.clear();
  }

  const std::string& failure() const { return failure_; }
  int64_t passes() const { return root_->passes; }
  std::string tree() { return root_->recursiveDescriptionForNotification(nullptr); }

 private:
  int64_t below(int64_t n) { return n <= 0 ? 0 : static_cast<int64_t>(random_() % static_cast<uint64_t>(n)); }
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(random_) < p; }

  Ref<RecordList> newList() {
    auto list = make<RecordList>();
    const int64_t count = below(6);
    for (int64_t i = 0; i < count; ++i) list->mutableArray().push_back(record(nextId_++, below(10)));
    return list;
  }

  // A random subtree whose top sits at `depth` below the root.
  Ref<SGSegment> subtree(int depth) {
    if (depth >= 4 || chance(0.4)) return listSegment(newList());
    switch (below(5)) {
      case 0: {
        auto filter = make<SGFilterSegment>(std::string("filter"));
        filter->setFilterBlock(keyFilter(1 + below(3)));
        filter->setShouldRefilterOnNotificationBlock(
            [](NPWNotification& notification, SGFilterSegment&) { return keysChanged(notification); });
        filter->setInnerSegment(subtree(depth + 1));
        return filter;
      }
      case 1: {
        auto sorting = make<SGSortingSegment>(std::string("sorting"));
        sorting->setSortDescriptors(randomDescriptors());
        if (chance(0.5)) sorting->setShouldSortBlock(keysChanged);
        sorting->setInnerSegment(subtree(depth + 1));
        return sorting;
      }
      case 2: {
        auto toggle = make<SGToggleSegment>(std::string("toggle"));
        toggle->setInnerSegment(subtree(depth + 1));
        if (chance(0.3)) {
          auto shown = std::make_shared<bool>(chance(0.5));
          toggleCells_[toggle.get()] = shown;
          toggle->setShowsInnerSegmentBlock([shown](NPWNotification*, bool) { return *shown; });
        } else {
          toggle->setShowsInnerSegment(chance(0.7));
        }
        return toggle;
      }
      case 3: {
        auto passthrough = make<SGPassthroughSegment>(std::string("passthrough"));
        passthrough->setInnerSegment(subtree(depth + 1));
        return passthrough;
      }
      default: {
        auto group = make<SGGroupSegment>(std::string("group"));
        const int64_t children = below(4);
        for (int64_t i = 0; i < children; ++i) group->addSegment(subtree(depth + 1));
        return group;
      }
    }
  }

  // Keeps the records whose key is a multiple of `modulus`.
  static SGFilterSegment::FilterBlock keyFilter(int64_t modulus) {
    return [modulus](SGSegment& inner, int64_t index) {
      std::optional<Value> shown = inner.representedObjectAtIndex(index);
      auto row = shown ? shown->objectAs<Record>() : nullptr;
      return row != nullptr && row->key % modulus == 0;
    };
  }
  std::vector<SortDescriptor> randomDescriptors() {
    std::vector<SortDescriptor> descriptors{SortDescriptor("key", chance(0.5))};
    if (chance(0.5)) descriptors.emplace_back("id", chance(0.5));
    return descriptors;
  }
  // Whether the notification carries a change of some record's key.
  static bool keysChanged(NPWNotification& notification) {
    bool changed = false;
    notification.graphTransaction()->enumerateEntityOperations(
        [&](const std::string&, const Ref<UGEntityOperation>& operation, bool& stop) {
          stop = changed = operation->valueForProperty("key").has_value();
        });
    return changed;
  }

  // Depth of a segment below the root (the root is 0).
  static int depthOf(const SGSegment& segment) {
    int depth = 0;
    for (auto parent = segment.parentSegment(); parent; parent = parent->parentSegment()) ++depth;
    return depth;
  }
  static int heightOf(SGSegment& segment) {
    int height = 0;
    for (const Ref<SGSegment>& descendant : segmentsUnder(segment)) height = std::max(height, depthOf(*descendant));
    return height - depthOf(segment);
  }

  // The segments of the tree that a change may touch: not those that the
  // running pass will not visit (see noteInsertion).
  template <class T>
  std::vector<Ref<T>> inTree() {
    std::vector<Ref<T>> found;
    for (const Ref<SGSegment>& segment : segmentsUnder(*root_)) {
      if (unvisited_.count(segment.get()) != 0) continue;
      if (auto typed = std::dynamic_pointer_cast<T>(segment)) found.push_back(typed);
    }
    return found;
  }

  // The walk fixes a node's successors before its entry hook, so children
  // added to the root inside a pass are not visited in it; a change inside
  // them would be seen by no exit hook (SegmentTreeTests shows what follows).
  void noteInsertion(const SGGroupSegment& group, const Ref<SGSegment>& child) {
    if (!inPass_ || &group != root_.get()) return;
    for (const Ref<SGSegment>& segment : segmentsUnder(*child)) unvisited_.insert(segment.get());
  }

  // A child for `group`: a segment from an earlier pass's removals when one
  // fits under the depth limit, else a new subtree.
  Ref<SGSegment> newChild(const SGGroupSegment& group) {
    const int depth = depthOf(group) + 1;
    if (!pool_.empty() && chance(0.3)) {
      const auto at = static_cast<size_t>(below(static_cast<int64_t>(pool_.size())));
      Ref<SGSegment> candidate = pool_[at];
      if (depth + heightOf(*candidate) <= 4) {
        pool_.erase(pool_.begin() + static_cast<int64_t>(at));
        return candidate;
      }
    }
    return subtree(depth);
  }

  // A removed segment may be used again in a later pass, but not one removed
  // inside a pass: changes made in it earlier in that pass reach no exit hook,
  // since removed successors are not visited.
  void detach(const Ref<SGSegment>& segment) {
    if (!inPass_) detached_.push_back(segment);
  }

  void change() {
    const int64_t kind = below(20);
    if (kind < 8) {
      changeList();
    } else if (kind < 14) {
      changeGroup();
    } else if (kind < 16) {
      changeKey();
    } else {
      changeContainer();
    }
  }

  // A record's key changes; filters refilter and sortings with a block
  // re-sort when they see it, the others keep their rows as they are.
  void changeKey() {
    auto segments = inTree<SGListSegment>();
    if (segments.empty()) return;
    Ref<SGListSegment> segment = segments[static_cast<size_t>(below(static_cast<int64_t>(segments.size())))];
    const Array& records = std::static_pointer_cast<RecordList>(segment->list())->array();
    if (records.empty()) return;
    auto changed = records[static_cast<size_t>(below(static_cast<int64_t>(records.size())))].objectAs<Record>();
    changed->key = below(10);
    didUpdatePropertyInitiateNotificationFromComposable(*changed, "key", segment.get(), true);
  }

  // Filters, sortings, toggles and passthroughs change their settings.
  void changeContainer() {
    auto containers = inTree<SGContainerSegment>();
    std::erase_if(containers, [](const auto& c) { return dynamic_cast<SGGroupSegment*>(c.get()) != nullptr; });
    if (containers.empty()) return changeGroup();
    Ref<SGContainerSegment> container = containers[static_cast<size_t>(below(static_cast<int64_t>(containers.size())))];
    const int depth = depthOf(*container) + 1;
    // A new inner segment only outside a pass: the old one, removed, is not
    // visited, so changes made in it earlier in the pass would be lost.
    const bool exchange = !inPass_ && depth <= 4 && chance(0.2);
    // Inside a pass but before their entry hooks, a filter or sorting
    // recomputes at once and its exit hook then also follows the inner
    // transform of the whole pass, and a toggle switched by its flag publishes
    // at once: so these change first in a pass only (SegmentTreeTests shows why).
    const bool recompute = !inPass_ || changeInPass_ == 0;
    if (!recompute && (dynamic_cast<SGFilterSegment*>(container.get()) != nullptr ||
                       dynamic_cast<SGSortingSegment*>(container.get()) != nullptr)) {
      return;
    }
    if (auto filter = std::dynamic_pointer_cast<SGFilterSegment>(container)) {
      if (exchange) return filter->setInnerSegment(subtree(depth));
      if (chance(0.5)) return filter->setFilterBlock(keyFilter(1 + below(3)));
      return filter->refilter();
    }
    if (auto sorting = std::dynamic_pointer_cast<SGSortingSegment>(container)) {
      if (exchange) return sorting->setInnerSegment(subtree(depth));
      return sorting->setSortDescriptors(randomDescriptors());
    }
    if (auto toggle = std::dynamic_pointer_cast<SGToggleSegment>(container)) {
      // Exchanging a toggle's inner segment publishes nothing (SegmentTreeTests).
      auto cell = toggleCells_.find(toggle.get());
      if (!toggle->showsInnerSegmentBlock() || cell == toggleCells_.end()) {
        // Before the toggle's entry hook a switch publishes at once, relative
        // to the inner rows of that moment: first in a pass only.
        if (recompute) toggle->setShowsInnerSegment(!toggle->showsInnerSegment());
        return;
      }
      *cell->second = !*cell->second;
      // Outside a pass the toggle re-decides now; inside, its exit hook does.
      if (!inPass_) toggle->reevaluate();
      return;
    }
    if (auto passthrough = std::dynamic_pointer_cast<SGPassthroughSegment>(container)) {
      if (!inPass_ && depth <= 4) passthrough->setInnerSegment(subtree(depth));
    }
  }

  void changeList() {
    auto segments = inTree<SGListSegment>();
    if (segments.empty()) return changeGroup();
    Ref<SGListSegment> segment = segments[static_cast<size_t>(below(static_cast<int64_t>(segments.size())))];
    auto list = std::static_pointer_cast<RecordList>(segment->list());
    const auto count = static_cast<int64_t>(list->array().size());
    const int64_t what = below(9);
    if (what == 8) {
      // A new list object; not after changes of the old list in this pass,
      // whose transform the segment publishes only in its exit hook.
      if (changedLists_.count(list.get()) != 0) return;
      Ref<RecordList> replacement = newList();
      segment->setTransformFromNotificationBlock(recordsTransformBlock(replacement));
      segment->setList(replacement);
      return;
    }
    changedLists_.insert(list.get());
    if (what < 3 || count == 0) {
      list->insert(record(nextId_++, below(10)), below(count + 1), *segment);
    } else if (what < 5) {
      list->remove(below(count), *segment);
    } else if (what < 7) {
      list->move(below(count), below(count), *segment);
    } else {
      list->replace(below(count), record(nextId_++, below(10)), *segment);
    }
  }

  void changeGroup() {
    auto groups = inTree<SGGroupSegment>();
    Ref<SGGroupSegment> group = groups[static_cast<size_t>(below(static_cast<int64_t>(groups.size())))];
    const auto count = static_cast<int64_t>(group->segments().size());
    const int64_t what = below(6);
    if (what == 0 || count == 0) {
      if (depthOf(*group) >= 4) return;
      Ref<SGSegment> child = newChild(*group);
      noteInsertion(*group, child);
      group->insertSegmentAtIndex(child, below(count + 1));
    } else if (what == 1) {
      const int64_t at = below(count);
      detach(group->segments()[static_cast<size_t>(at)]);
      group->removeSegmentAtIndex(at);
    } else if (what == 2) {
      group->moveSegmentAtIndexToIndex(below(count), below(count));
    } else if (what == 3) {
      // Replacing a child: removed and another inserted in its place.
      if (depthOf(*group) >= 4) return;
      const int64_t at = below(count);
      detach(group->segments()[static_cast<size_t>(at)]);
      group->removeSegmentAtIndex(at);
      Ref<SGSegment> child = newChild(*group);
      noteInsertion(*group, child);
      group->insertSegmentAtIndex(child, at);
    } else {
      // setSegments: a shuffled subset of the children and maybe new ones.
      // Children left out keep their parentSegment; they are not used again.
      std::vector<Ref<SGSegment>> next = group->segments();
      std::shuffle(next.begin(), next.end(), random_);
      next.resize(static_cast<size_t>(below(count + 1)));
      if (depthOf(*group) < 4 && chance(0.5)) {
        Ref<SGSegment> child = subtree(depthOf(*group) + 1);
        noteInsertion(*group, child);
        next.insert(next.begin() + below(static_cast<int64_t>(next.size()) + 1), child);
      }
      group->setSegments(next);
    }
  }

  void fail(const std::string& what) {
    if (failure_.empty()) failure_ = what;
  }

  // After a pass: checks every segment of the tree, then remembers its rows.
  void validatePass(NPWNotification* notification) {
    if (!failure_.empty()) return;
    walk();
    for (size_t k = 0; k < order_.size(); ++k) {
      validateSegment(k, notification);
      if (!failure_.empty()) return;
    }
    keepRows();
  }

  // The tree in depth-first order, each segment's rows and where its subtree ends.
  void walk() {
    order_ = segmentsUnder(*root_);
    rows_.assign(order_.size(), Array());
    subtreeEnd_.assign(order_.size(), order_.size());
    std::vector<size_t> open;  // positions whose subtree has not ended yet
    for (size_t k = 0; k < order_.size(); ++k) {
      rows_[k] = rowsOf(*order_[k]);
      const SGSegment* parent = order_[k]->parentSegment().get();
      while (!open.empty() && order_[open.back()].get() != parent) {
        subtreeEnd_[open.back()] = k;
        open.pop_back();
      }
      if (k > 0 && open.empty()) fail(order_[k]->description() + ": its parentSegment is not above it in the walk");
      open.push_back(k);
    }
  }

  void remember() {
    walk();
    keepRows();
  }
  // The rows of the last walk become the rows before the next pass.
  void keepRows() {
    shadows_.clear();
    for (size_t k = 0; k < order_.size(); ++k) shadows_[order_[k].get()] = {order_[k], std::move(rows_[k])};
  }

  // `rows` replaces `before` when a transform (with placeholders for the
  // inserted rows) gave `replayed`.
  bool agrees(const Array& replayed, const Array& rows) {
    if (replayed.size() != rows.size()) return false;
    for (size_t i = 0; i < rows.size(); ++i) {
      if (!replayed[i].isNull() && !sameRow(replayed[i], rows[i])) return false;
    }
    return true;
  }

  void validateSegment(size_t position, NPWNotification* notification) {
    SGSegment& segment = *order_[position];
    auto name = [&segment] { return segment.description(); };
    const Array& rows = rows_[position];
    const auto count = static_cast<int64_t>(rows.size());
    if (segment.itemCount() != count) return fail(name() + ": itemCount differs from the rows");

    auto shadow = shadows_.find(&segment);
    if (shadow != shadows_.end()) {
      const Array& before = shadow->second.second;
      Ref<UGListTransform> transform = notification == nullptr ? nullptr
                                                               : SGSegment::transformForRelationOfSegmentInNotification(
                                                                     "items", segment, *notification);
      if (!transform) {
        if (before.size() != rows.size() || !std::equal(before.begin(), before.end(), rows.begin(), sameRow)) {
          return fail(name() + ": rows changed without a transform: " + idsOf(before) + " -> " + idsOf(rows));
        }
      } else {
        Array applied;
        try {
          applied = arrayByApplyingTransformIgnoringObjectsInTransform(before, *transform, true);
        } catch (const Exception&) {
          return fail(name() + ": transform does not fit the rows " + idsOf(before) + ": " + transform->description());
        }
        if (!agrees(applied, rows)) {
          return fail(name() + ": transform gives " + idsOf(applied) + " instead of " + idsOf(rows) + " from " +
                      idsOf(before) + ":\n" + segment.recursiveDescriptionForNotification(notification));
        }
        Array steps = before;
        bool valid = true;
        auto inside = [&](int64_t index, int64_t extra) {
          valid = valid && index >= 0 && index < static_cast<int64_t>(steps.size()) + extra;
          return valid;
        };
        transform->enumerateTransformAsLinearizedDeletionsMovesInsertions(
            [&](int64_t index) {
              if (inside(index, 0)) steps.erase(steps.begin() + index);
            },
            [&](int64_t from, int64_t to) {
              if (!inside(from, 0)) return;
              Value moved = steps[static_cast<size_t>(from)];
              steps.erase(steps.begin() + from);
              if (inside(to, 1)) steps.insert(steps.begin() + to, moved);
            },
            [&](int64_t index) {
              if (inside(index, 1)) steps.insert(steps.begin() + index, Value::null());
            });
        if (!valid || !agrees(steps, rows)) {
          return fail(name() + ": linearized replay fails from " + idsOf(before) + " to " + idsOf(rows) + ": " +
                      transform->description());
        }
      }
    }

    for (int64_t i = 0; i < count; ++i) {
      std::optional<Value> shown = segment.representedObjectAtIndex(i);
      if (!shown || !sameRow(*shown, rows[static_cast<size_t>(i)])) return fail(name() + ": representedObjectAtIndex");
      std::optional<IndexSet> indexes = segment.indexesForRepresentedObject(rows[static_cast<size_t>(i)]);
      if (!indexes || *indexes != IndexSet(i))
        return fail(name() + ": indexesForRepresentedObject of row " + std::to_string(i));
      Ref<SGSegment> leaf = segment.leafSegmentForIndex(i);
      if (!leaf) return fail(name() + ": no leaf for row " + std::to_string(i));
      const int64_t inLeaf = leaf->transformIndexFromAncestorSegment(i, &segment);
      if (inLeaf == NotFound || inLeaf >= leaf->itemCount() ||
          !sameRow(*leaf->representedObjectAtIndex(inLeaf), rows[static_cast<size_t>(i)])) {
        return fail(name() + ": mapping row " + std::to_string(i) + " down to its leaf");
      }
    }
    // Every row comes from exactly one row of one leaf; every descendant's
    // row maps up to the same object and back down to itself.
    std::vector<int> shownBy(static_cast<size_t>(count), 0);
    for (size_t k = position + 1; k < subtreeEnd_[position]; ++k) {
      const Ref<SGSegment>& descendant = order_[k];
      const bool leaf = dynamic_cast<SGContainerSegment*>(descendant.get()) == nullptr;
      const Array& below = rows_[k];
      for (int64_t d = 0; d < static_cast<int64_t>(below.size()); ++d) {
        const int64_t up = descendant->transformIndexToAncestorSegment(d, &segment);
        if (up == NotFound) continue;
        if (up < 0 || up >= count || !sameRow(rows[static_cast<size_t>(up)], below[static_cast<size_t>(d)])) {
          return fail(name() + ": " + descendant->description() + " row " + std::to_string(d) + " maps up wrongly");
        }
        if (descendant->transformIndexFromAncestorSegment(up, &segment) != d) {
          return fail(name() + ": " + descendant->description() + " row " + std::to_string(d) + " does not map back");
        }
        if (leaf) ++shownBy[static_cast<size_t>(up)];
      }
    }
    if (dynamic_cast<SGContainerSegment*>(&segment) != nullptr) {
      for (int64_t i = 0; i < count; ++i) {
        if (shownBy[static_cast<size_t>(i)] != 1)
          return fail(name() + ": row " + std::to_string(i) + " is not shown by one leaf row");
      }
    }
  }

  std::mt19937_64 random_;
  Ref<DriverGroup> root_;
  int64_t nextId_ = 0;
  std::unordered_map<const SGSegment*, std::pair<Ref<SGSegment>, Array>> shadows_;
  std::vector<Ref<SGSegment>> pool_;
  std::vector<Ref<SGSegment>> detached_;
  std::unordered_set<const Object*> changedLists_;
  std::unordered_set<const SGSegment*> unvisited_;
  std::unordered_map<const SGSegment*, std::shared_ptr<bool>> toggleCells_;
  bool inPass_ = false;
  int64_t changeInPass_ = 0;
  std::string failure_;
  // The tree as walk() found it: segments in depth-first order, their rows,
  // and for each the position after its last descendant.
  std::vector<Ref<SGSegment>> order_;
  std::vector<Array> rows_;
  std::vector<size_t> subtreeEnd_;
};

constexpr uint64_t kTrees = 400;

uint64_t baseSeed() {
  if (const char* text = std::getenv("LOOMWORK_ROW_VALIDATOR_SEED")) return std::strtoull(text, nullptr, 10);
  return 20261123;
}

TEST(RowValidator, RandomTreesAndChangesKeepRowsAndTransformsInAgreement) {
  const uint64_t base = baseSeed();
  int64_t passes = 0;
  for (uint64_t tree = 0; tree < kTrees; ++tree) {
    const uint64_t seed = base + tree;
    RowValidator validator(seed);
    for (int step = 0; step < 60; ++step) {
      try {
        validator.step();
      } catch (const std::exception& e) {
        FAIL() << "seed " << seed << ", step " << step << ": " << e.what();
      }
      ASSERT_TRUE(validator.failure().empty())
          << "seed " << seed << ", step " << step << ": " << validator.failure() << "\n"
          << validator.tree();
    }
    passes += validator.passes();
  }
  EXPECT_GE(passes, static_cast<int64_t>(kTrees) * 50);
}

}  // namespace
}  // namespace loomwork::testing
