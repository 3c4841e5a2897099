// List transforms: the change of an ordered list as deletions, moves and
// insertions; composing, mapping and applying them; the transform between two
// arrays; and the linearizer that replays a batch one valid step at a time.
#pragma once

#include "loomwork/listtransform/ListTransformArrayOperations.h"
#include "loomwork/listtransform/TWArrayOperation.h"
#include "loomwork/listtransform/TWArrayOperationLinearizer.h"
#include "loomwork/listtransform/UGListChange.h"
#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/listtransform/UGListTransformItem.h"
#include "loomwork/platform.h"
