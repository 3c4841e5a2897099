// The platform layer: the object model, dynamic values, index sets,
// exceptions and sort descriptors that every subsystem builds on.
#pragma once

#include "platform/Exception.h"
#include "platform/IndexSet.h"
#include "platform/Object.h"
#include "platform/SortDescriptor.h"
#include "platform/Types.h"
#include "platform/Value.h"
#include "platform/LocalizedStrings.h"
#include "platform/TextServices.h"
#include "platform/UUID.h"
#include "platform/PropertyList.h"
