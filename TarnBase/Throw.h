#pragma once
// Every throw in the libraries leaves one error record behind, naming the exception class
// and the throwing source, so a support engineer can follow a failure through the log.

#include "TarnBase/Exceptions.h"
#include "TarnBase/LogCall.h"

#define TARN_THROW(className, sourceName, ExceptionType)                                       \
    do {                                                                                       \
        ::TarnBase::Log(className, 0, "Throwing %s exception type. File: %s Line: %d.",        \
                        #ExceptionType, sourceName, static_cast<int>(__LINE__));               \
        throw ExceptionType();                                                                 \
    } while (0)

// An object whose construction failed refuses every operation: one warning naming the
// operation ("Initialize(): Error - Object is invalid."), then InvalidObjectException.
#define TARN_REQUIRE_VALID(valid, className, sourceName, operation)                            \
    do {                                                                                       \
        if (!(valid)) {                                                                        \
            ::TarnBase::Log(className, 1, "%s(): Error - Object is invalid.", operation);      \
            TARN_THROW(className, sourceName, TarnBase::InvalidObjectException);               \
        }                                                                                      \
    } while (0)
