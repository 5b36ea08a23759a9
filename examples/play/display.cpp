// SPDX-License-Identifier: MIT
#include "display.h"

namespace play
{

std::unique_ptr<Display> open_display(const Options& options, std::string* error)
{
    switch (options.display) {
    case DisplayKind::none: return open_no_display(options);
    case DisplayKind::kms: return open_kms_display(options, error);
    case DisplayKind::sim: break;
    }
    return open_simulated_display(options);
}

} // namespace play
