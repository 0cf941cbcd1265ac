// Applying route documents: the first time as they are, later only what differs.
#pragma once

#include "edged/desired.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

// Applies every route document of `desired` that is not applied yet, or whose devices are others now.
void apply_routes(const Desired& desired, const std::string& work_directory, Ledger& ledger, Report& report);

// Applies the documents of the default tables again, which the monitors flush when they stop.
void restore_default_tables(const Desired& desired, Ledger& ledger, Report& report);

// Rebuilds the routes that a private link takes from the site document, when that document changed.
void apply_private_routes(const Desired& desired, Ledger& ledger, Report& report);

}  // namespace edged
