#include "loomwork/listtransform/UGListTransformItem.h"

namespace loomwork {

UGListTransformItem::~UGListTransformItem() { cutMoveLink(); }

Ref<UGListTransformItem> UGListTransformItem::moveLink() const {
  if (moveLink_ == nullptr) return nullptr;
  return std::static_pointer_cast<UGListTransformItem>(moveLink_->weak_from_this().lock());
}

void UGListTransformItem::establishMoveLinkToItem(UGListTransformItem* partner) {
  if (partner == nullptr || partner == this || moveLink_ == partner) return;
  cutMoveLink();
  partner->cutMoveLink();
  moveLink_ = partner;
  partner->moveLink_ = this;
}

void UGListTransformItem::cutMoveLink() {
  if (moveLink_ == nullptr) return;
  if (moveLink_->moveLink_ == this) moveLink_->moveLink_ = nullptr;
  moveLink_ = nullptr;
}

std::string UGListTransformItem::description() const {
  std::string text = std::to_string(index_) + " (" + describe(object_) + ")";
  if (moveLink_ != nullptr) text += "  movelink " + std::to_string(moveLink_->index_);
  return text;
}

}  // namespace loomwork
