// List transforms: the change of an ordered list as deletions, moves and
// insertions; composing, mapping and applying them; the transform between two
// arrays; and the linearizer that replays a batch one valid step at a time.
#pragma once

#include "listtransform/ListTransformArrayOperations.h"
#include "listtransform/TWArrayOperation.h"
#include "listtransform/TWArrayOperationLinearizer.h"
#include "listtransform/UGListChange.h"
#include "listtransform/UGListTransform.h"
#include "listtransform/UGListTransformItem.h"
#include "loomwork/platform.h"
