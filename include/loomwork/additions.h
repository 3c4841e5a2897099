// General additions: string makers and abbreviation scoring, integer arrays,
// index paths, array iterators and collection operations.
#pragma once

#include "loomwork/platform.h"

#include "loomwork/additions/ArrayIterator.h"
#include "loomwork/additions/Collections.h"
#include "loomwork/additions/IndexPath.h"
#include "loomwork/additions/IntegerArray.h"
#include "loomwork/additions/StringAdditions.h"
#include "loomwork/additions/StringScoring.h"
#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/additions/TWDayDate.h"
#include "loomwork/additions/TWNestedMapTable.h"
#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/additions/ThreadDispatch.h"
#include "loomwork/additions/TWWarpTenProgress.h"
