#pragma once
// Makes the filter object that a filter type stands for.

#include "lumen_fx/ImageFilterTypes.h"

class BeautyFilterBase;

// The filter object for `type`, or null for a type without one.
BeautyFilterBase* createImageFilter(ImageFilterType type);
