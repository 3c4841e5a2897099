// Announcing changes of graph objects as notifications.
#pragma once

#include <string_view>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Announces that the object's property changed: an UPDATE (entity name: the
// object's class name) setting the property to the object's current value
// (valueForKey; absent becomes the null value), keyed by the object's
// universalGraphUUID in a one-operation UGMutableTransaction, wrapped with
// NPWNotification::notificationWithGraphTransaction and handed to the
// initiator's initiateNotificationComposable. Nothing without an initiator.
void didUpdatePropertyInitiateNotificationFromComposable(const Object& object, std::string_view property,
                                                         Object* initiator, bool composable);
// The same for a relation: an UPDATE that carries the transform for the
// relation and no property values. Nothing without a transform or initiator.
void didUpdateRelationWithTransformInitiateNotificationFromComposable(const Object& object, std::string_view relation,
                                                                      const Ref<UGListTransform>& transform,
                                                                      Object* initiator, bool composable);

}  // namespace loomwork
#pragma GCC visibility pop
