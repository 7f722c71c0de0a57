#include "filters/FilterFactory.h"

#include "filters/BeautyFilterBase.h"
#include "filters/OpenglBasicImageFilter.h"
#include "filters/OpenglFaceAreaFilter.h"
#include "filters/OpenglSlimFaceFilter.h"
#include "filters/OpenglSmoothAndWhiteningFilter.h"
#include "filters/OpenglStickerFilter.h"
#include "filters/OpenglWhiteningFilter.h"

BeautyFilterBase* createImageFilter(ImageFilterType type)
{
    switch (type) {
    case SLIMFACE:
        return new OpenglSlimFaceFilter();
    case SMOOTH:
    case REDLIPS:
        // One object per type, although the class is the same.
        return new OpenglFaceAreaFilter();
    case WHITENING:
        return new OpenglWhiteningFilter();
    case SMOOTHWHITENING:
        return new OpenglSmoothAndWhiteningFilter();
    case BASICIMAGE:
        return new OpenglBasicImageFilter();
    case STICKER:
        return new OpenglStickerFilter();
    default:
        // The background types have no filter object.
        return nullptr;
    }
}
