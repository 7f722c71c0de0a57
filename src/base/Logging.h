#pragma once
// The engine's logging categories. Every line goes through Qt's message
// logger under one of them, so that a host can silence or route the engine's
// lines with QT_LOGGING_RULES, for example "lumen_fx.*.info=false" or
// "lumen_fx.face=false".

#include <QLoggingCategory>

#include "base/WarningLimit.h"

Q_DECLARE_LOGGING_CATEGORY(lcEngine)   // "lumen_fx.engine": the facade, the start and the end
Q_DECLARE_LOGGING_CATEGORY(lcChannel)  // "lumen_fx.channel": channel pipelines
Q_DECLARE_LOGGING_CATEGORY(lcScene)    // "lumen_fx.scene": scenes and their exchange with channels
Q_DECLARE_LOGGING_CATEGORY(lcGpu)      // "lumen_fx.gpu": GPU workers, shaders, the merger
Q_DECLARE_LOGGING_CATEGORY(lcFilters)  // "lumen_fx.filters": filter objects
Q_DECLARE_LOGGING_CATEGORY(lcFace)     // "lumen_fx.face": face detection
Q_DECLARE_LOGGING_CATEGORY(lcConvert)  // "lumen_fx.convert": picture and frame conversion
