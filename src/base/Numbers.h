#pragma once
// Numeric helpers that every layer shares.

#include <cstdint>

// A double truncated towards zero into 32 bits: NaN gives 0, values beyond
// the range give its ends (a plain cast would be undefined there).
int32_t truncToInt(double value);
