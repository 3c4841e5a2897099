// The platform layer that every subsystem builds on: the object model,
// dynamic values, index sets, exceptions, sort descriptors, text services,
// property lists, the log sink, calendars, run loops and threads, and the
// data detector.
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
#include "loomwork/platform/Calendar.h"
#include "loomwork/platform/RunLoop.h"
#include "loomwork/platform/Thread.h"
