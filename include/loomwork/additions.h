// General additions: string makers and abbreviation scoring, integer arrays,
// index paths, array iterators and collection operations.
#pragma once

#include "additions/ArrayIterator.h"
#include "additions/Collections.h"
#include "additions/IndexPath.h"
#include "additions/IntegerArray.h"
#include "additions/StringAdditions.h"
#include "additions/StringScoring.h"
#include "additions/PropertyListAdditions.h"
