// Segments: the segment tree that turns model lists into sectioned, filtered,
// sorted and toggled rows and reports every change of its rows as a list
// transform.
#pragma once

#include "loomwork/notifications.h"
#include "loomwork/segments/LWRandomAccessContainer.h"
#include "loomwork/segments/SGContainerSegment.h"
#include "loomwork/segments/SGFilterSegment.h"
#include "loomwork/segments/SGGroupSegment.h"
#include "loomwork/segments/SGInnerSegmentContainer.h"
#include "loomwork/segments/SGListSegment.h"
#include "loomwork/segments/SGPassthroughSegment.h"
#include "loomwork/segments/SGSegment.h"
#include "loomwork/segments/SGSortingSegment.h"
#include "loomwork/segments/SGToggleSegment.h"
