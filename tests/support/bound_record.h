#pragma once

#include "reader/connection_record.h"
#include "support/capturing_logger.h"

namespace tovra::test {

// A connection record of no reader, for a plugin used directly; its records are kept.
struct BoundRecord {
    BoundRecord() { record.bind(nullptr, logger, 9); }

    CapturingLogger logger;
    ConnectionRecord record;
};

} // namespace tovra::test
