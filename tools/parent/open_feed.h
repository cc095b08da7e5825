// From the command line to the feed.
#pragma once

#include <memory>

#include "tools/parent/options.h"
#include "tools/stream/feed.h"
#include "tools/stream/link.h"

namespace vesper::tools {

// What the options ask for, ready to start or on its way there. `link` outlives it. Null, with a
// line on standard error, when it cannot be opened.
[[nodiscard]] std::unique_ptr<Feed> open_feed(const Options& options, Link& link);

}  // namespace vesper::tools
