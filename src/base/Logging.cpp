#include "base/Logging.h"

Q_LOGGING_CATEGORY(lcEngine, "lumen_fx.engine")
Q_LOGGING_CATEGORY(lcChannel, "lumen_fx.channel")
Q_LOGGING_CATEGORY(lcScene, "lumen_fx.scene")
Q_LOGGING_CATEGORY(lcGpu, "lumen_fx.gpu")
Q_LOGGING_CATEGORY(lcFilters, "lumen_fx.filters")
Q_LOGGING_CATEGORY(lcFace, "lumen_fx.face")
Q_LOGGING_CATEGORY(lcConvert, "lumen_fx.convert")
