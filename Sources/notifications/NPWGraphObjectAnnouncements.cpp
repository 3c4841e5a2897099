#include "loomwork/notifications/NPWGraphObjectAnnouncements.h"

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/graph/UniversalGraphObjects.h"
#include "loomwork/notifications/NPWNode.h"
#include "loomwork/notifications/NPWNotification.h"

namespace loomwork {

namespace {

void announce(const Object& object, const Ref<UGMutableEntityOperation>& operation, Object& initiator,
              bool composable) {
  auto transaction = UGMutableTransaction::transaction();
  transaction->setOperationForUUID(operation, universalGraphUUID(object));
  initiateNotificationComposable(initiator, NPWNotification::notificationWithGraphTransaction(transaction), composable);
}

}  // namespace

void didUpdatePropertyInitiateNotificationFromComposable(const Object& object, std::string_view property,
                                                         Object* initiator, bool composable) {
  if (initiator == nullptr) return;
  auto operation =
      UGMutableEntityOperation::operationWithTypeEntityName(UGEntityOperationTypeUpdate, object.className());
  operation->setValueForProperty(object.valueForKey(property).value_or(Value::null()), property);
  announce(object, operation, *initiator, composable);
}

void didUpdateRelationWithTransformInitiateNotificationFromComposable(const Object& object, std::string_view relation,
                                                                      const Ref<UGListTransform>& transform,
                                                                      Object* initiator, bool composable) {
  if (initiator == nullptr || !transform) return;
  auto operation =
      UGMutableEntityOperation::operationWithTypeEntityName(UGEntityOperationTypeUpdate, object.className());
  operation->setTransformForRelation(transform, relation);
  announce(object, operation, *initiator, composable);
}

}  // namespace loomwork
