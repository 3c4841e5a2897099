// Graph transactions: entity operations (create, update, delete, identity)
// keyed by entity UUID, gathered in transactions that compose, invert, merge,
// reduce and read and write a property-list form; and the graph identity of
// objects.
#pragma once

#include "loomwork/graph/UGEntityOperation.h"
#include "loomwork/graph/UGTransaction.h"
#include "loomwork/graph/UniversalGraphObjects.h"
#include "loomwork/listtransform.h"
#include "loomwork/platform.h"
