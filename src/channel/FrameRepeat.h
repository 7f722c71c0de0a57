#pragma once
// Whether a channel's next frame would come out as its last one did, so that
// its passes can be left out: the same picture (no frame handed in as changed
// since, and the same QImage, untouched), the same settings, an exchange
// buffer that nobody else changed since the last delivery, and faces that the
// detector had already settled on. The last output then stays where it is: in the shared texture,
// in the scene's picture or in the channel's own.

#include <QtGlobal>

struct FrameInputs {
    qint64 picture = 0;     // the picture's cache key
    quint64 handedIn = 0;   // the count of pictures handed in as changed
    quint64 settings = 0;   // the channel's count of calls that change its output
    quint64 exchange = 0;   // the exchange buffer's count of changes, after the delivery
    bool faceless = false;  // the face passes are skipped for the channel

    bool operator==(const FrameInputs& other) const
    {
        return picture == other.picture && handedIn == other.handedIn && settings == other.settings &&
               exchange == other.exchange && faceless == other.faceless;
    }
};

class FrameRepeat {
public:
    // True when `inputs` are those that the last delivered frame was worked
    // from, and its faces were those of the frame before (the detector had
    // settled on that picture).
    bool unchanged(const FrameInputs& inputs) const { return settled && inputs == last; }
    // A frame worked on and delivered, after which the inputs read `after`;
    // `facesRepeated` when its faces were the previous frame's.
    void delivered(const FrameInputs& after, bool facesRepeated)
    {
        last = after;
        settled = facesRepeated;
    }
    // A frame that was worked on but not delivered, or whose output depends on
    // more than its inputs: the next one is worked on whatever it is.
    void forget() { settled = false; }

private:
    FrameInputs last;
    bool settled = false;
};
