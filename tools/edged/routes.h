// Applying route documents: the first time as they are, later only what differs.
#pragma once

#include "edged/desired.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

// Applies every route document of `desired` that is not applied yet, or whose devices are others now.
void apply_routes(const Desired& desired, const std::string& work_directory, Ledger& ledger, Report& report);

// Before a monitor stops: the library flushes the default table of its link then.
void doubt_default_table(const std::string& link, bool private_link, Ledger& ledger);

// Installs the routes that private links take from the site document, where they are not those of `desired`.
void apply_private_routes(const Desired& desired, Ledger& ledger, Report& report);

}  // namespace edged
