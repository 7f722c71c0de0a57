#pragma once
// The process-wide lock of the GL objects that contexts share. Held for
// writing by whoever creates or destroys surfaces, contexts or shared
// textures, for reading by whoever reads shared textures. Not recursive.
// Taken inside the turn at the driver (base/DriverLock.h), never around it.

#include <QReadWriteLock>

QReadWriteLock& sharedTextureLock();
