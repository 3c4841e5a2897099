// Notification processing: notifications that carry a graph transaction,
// composed while a pass runs, and the depth-first walk of a node graph with
// entry and exit hooks.
#pragma once

#include "loomwork/graph.h"
#include "loomwork/notifications/NPProcessingContext.h"
#include "loomwork/notifications/NPWGraphObjectAnnouncements.h"
#include "loomwork/notifications/NPWNode.h"
#include "loomwork/notifications/NPWNotification.h"
#include "loomwork/notifications/NPWProcessingCenter.h"
