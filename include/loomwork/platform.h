// The platform layer: the object model, dynamic values, index sets,
// exceptions and sort descriptors that every subsystem builds on.
#pragma once

#include "loomwork/platform/Exception.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/SortDescriptor.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"
#include "loomwork/platform/LocalizedStrings.h"
#include "loomwork/platform/Log.h"
#include "loomwork/platform/TextServices.h"
#include "loomwork/platform/UUID.h"
#include "loomwork/platform/PropertyList.h"
#include "loomwork/platform/DataDetector.h"
