#include "filters/FilterFactory.h"

#include "filters/BeautyFilterBase.h"

BeautyFilterBase* createImageFilter(ImageFilterType type)
{
    switch (type) {
    default:
        return nullptr;
    }
}
