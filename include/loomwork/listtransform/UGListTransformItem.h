// UGListTransformItem: one deletion or insertion of a list transform.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// One deletion or insertion: a position, the element when it is known, and
// for the two halves of a move a link to the partner item.
//
// Move links are always mutual and never own the partner: an item that is
// destroyed cuts its partner's link, so two linked items never keep each other
// alive and a link never dangles. Items belong to the transform that holds
// them; like the transform, an item is used by one thread at a time.
class UGListTransformItem : public Object {
 public:
  UGListTransformItem(int64_t index, std::optional<Value> object) : index_(index), object_(std::move(object)) {}
  ~UGListTransformItem() override;

  static Ref<UGListTransformItem> itemWithIndexObject(int64_t index, std::optional<Value> object) {
    return make<UGListTransformItem>(index, std::move(object));
  }

  int64_t index() const { return index_; }
  void setIndex(int64_t index) { index_ = index; }
  const std::optional<Value>& object() const { return object_; }
  void setObject(std::optional<Value> object) { object_ = std::move(object); }

  // The partner of a move, or empty for a plain deletion or insertion.
  Ref<UGListTransformItem> moveLink() const;
  UGListTransformItem* moveLinkItem() const { return moveLink_; }
  bool hasMoveLink() const { return moveLink_ != nullptr; }

  // Links this item and the partner to each other. Nothing happens for an
  // absent partner or one already linked to this item; links either of them
  // had to other items are cut first, so that links stay mutual.
  void establishMoveLinkToItem(UGListTransformItem* partner);
  void establishMoveLinkToItem(const Ref<UGListTransformItem>& partner) { establishMoveLinkToItem(partner.get()); }
  // Clears this item's link and its partner's.
  void cutMoveLink();

  // A new item with the same index and object, without a link.
  Ref<UGListTransformItem> copy() const { return itemWithIndexObject(index_, object_); }

  // "%li (%@)", or "%li (%@)  movelink %li" with the partner's index.
  std::string description() const override;

 private:
  int64_t index_;
  std::optional<Value> object_;
  UGListTransformItem* moveLink_ = nullptr;
};

using UGListTransformItemArray = std::vector<Ref<UGListTransformItem>>;

}  // namespace loomwork
#pragma GCC visibility pop
