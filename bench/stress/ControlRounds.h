#pragma once
// The rounds of the control scenes: fed, merged and checked by the GUI thread
// through the storm, and every one of them, the late one's first time, for a
// while after it.

#include <memory>
#include <vector>

#include <QString>

#include "stress/ControlScenes.h"
#include "stress/StampChecker.h"

namespace stress {

// The control scenes: of different sizes, one placed inside a larger canvas
// over a colour, one first fed only after the storm, as a scene that a host
// made early and uses late.
const ControlPlan kControlPlans[] = {
    {{320, 240}, {320, 240}, {0, 0}, qRgb(0, 0, 0), false},
    {{1280, 720}, {1280, 720}, {0, 0}, qRgb(0, 0, 0), false},
    {{333, 517}, {640, 600}, {101, 37}, qRgb(30, 60, 90), false},
    {{1280, 720}, {1280, 720}, {0, 0}, qRgb(0, 0, 0), true},
};

const int kAfterStormPeriodMs = 150;
const int kAfterStormMs = 15000;
// When the late control still shows nothing this long after its first feed,
// the stacks of every thread are written down.
const int kStacksAfterMs = 10000;

using Controls = std::vector<std::unique_ptr<ControlScene>>;

// Feeds and checks the controls (the late ones too when `all`); their
// pictures go to the stamp checker as well.
void feedAndCheck(Controls& controls, bool all, const QString& failureDir, StampChecker& checker);

// After the storm every control scene, the late one's first time, is fed,
// merged and checked every kAfterStormPeriodMs for kAfterStormMs. The stacks
// of a late control that shows nothing for kStacksAfterMs go to
// "stacks-late-control.txt" in `failureDir`; the window grows by the time
// that takes, while gdb holds every thread.
void runAfterStorm(Controls& controls, const QString& failureDir, StampChecker& checker);

}  // namespace stress
