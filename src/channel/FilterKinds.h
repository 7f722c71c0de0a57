#pragma once
// What the channel knows of each filter type, one row a type: the filter
// object it makes, the bits it adds to a channel's features, the parameter
// kind its setter takes, whether the face pass draws it, and how the host's
// record behind `void*` reads.
// Reading a record is pure: it says what to ask of the channel's thread and
// posts nothing itself.

#include <cstdint>
#include <map>
#include <string>

#include "lumen_fx/ImageFilterTypes.h"

using FilterParaMap = std::map<std::string, double>;

// The bits a type ORs into a channel's neededFeatures (nothing reads them).
enum FeatureBit : uint32_t {
    kFaceFeature = 1,      // works on the face found in the picture
    kToneFeature = 2,      // changes the skin's or the picture's tone
    kOverlayFeature = 4,   // draws a picture of its own over the face
    kPictureFeature = 8,   // works on the whole picture
};

// A picture file or background setting that a record names.
struct RecordPicture {
    std::string path;
    bool isBgBlured = false;
    bool isBgTransparent = false;
    bool isGreenScreen = false;
};

// What a host's record asks of the channel.
struct RecordReading {
    bool add = false;          // ask for the filter
    bool faceDetect = false;   // ... with face detection
    bool hasPicture = false;   // hand it `picture`
    RecordPicture picture;
    bool sendsParameters = true;  // send `parameters` (possibly empty)
    FilterParaMap parameters;
    std::string notFinite;  // a key whose value is NaN or infinite: the whole call is dropped
};

class BeautyFilterBase;

using RecordReader = RecordReading (*)(ImageFilterType type, const void* para, bool fromSetter);

struct FilterKind {
    ImageFilterType type;
    uint32_t features;       // FeatureBit
    int paraType;            // the FilterParaType its setter takes; -1: none
    bool facePass;           // drawn by the face pass (the sticker has a pass of its own)
    RecordReader read;       // null: the record isn't read and nothing is asked
    BeautyFilterBase* (*make)();  // the filter object the channel adds; null: none (the backgrounds)
};

// The row of a filter type, SLIMFACE to SMOOTHWHITENING; null for any other value (NOFILTER included).
const FilterKind* filterKind(int type);

inline bool isFilterType(int type) { return filterKind(type) != nullptr; }
inline uint32_t featureBits(int type)
{
    const FilterKind* kind = filterKind(type);
    return kind ? kind->features : 0;
}
inline bool createsFilterObject(int type)
{
    const FilterKind* kind = filterKind(type);
    return kind && kind->make;
}
// A new filter object for `type`, owned by the caller; null for a type without one.
BeautyFilterBase* createImageFilter(ImageFilterType type);
inline bool isFaceFilterType(int type)
{
    const FilterKind* kind = filterKind(type);
    return kind && kind->facePass;
}
// Whether the setter's parameter kind belongs to the type; a record of another kind isn't read.
bool paraTypeBelongs(ImageFilterType type, FilterParaType paraType);

// Reads the record of a type. From the setter, red lips always ask for face detection.
RecordReading readFilterRecord(ImageFilterType type, const void* para, bool fromSetter);
