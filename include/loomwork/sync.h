// Operational-transform sync: states and path components of the state space
// shared by one server and one client, the merge of concurrent transactions
// and index ranges of the state space.
#pragma once

#include "loomwork/graph.h"
#include "loomwork/sync/LWIsEqual.h"
#include "loomwork/sync/OTMerge.h"
#include "loomwork/sync/OTPathComponent.h"
#include "loomwork/sync/OTRange.h"
#include "loomwork/sync/OTState.h"
#include "loomwork/sync/OTStateSpaceIdentifier.h"
#include "loomwork/sync/OTSyncController.h"
#include "loomwork/sync/OTSyncControllerDataSource.h"
