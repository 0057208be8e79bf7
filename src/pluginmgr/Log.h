#pragma once

#include "ktr/common/Logger.h"

/// Writes one line at `level` (critical, error, information ...) with the file's kSourceFile.
/// `text` is evaluated only if the logger lets the level through.
#define KTR_LOG(level, text)                                                                       \
    do {                                                                                           \
        Poco::Logger& ktrLogger = ::ktr::cachedLogger();                                           \
        if (ktrLogger.level())                                                                     \
            ktrLogger.level((text), kSourceFile, __LINE__);                                        \
    } while (false)
