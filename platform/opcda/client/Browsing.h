#pragma once

// How a server's names are walked through, by either of the two interfaces for it. Servers that lead in circles or
// never end are given up.

#include "opcda/client/BrowseStubs.h"
#include "opcda/client/OpcSession.h"

namespace quelm::opcda::client {

// As OpcSession::browse.
void browseBy(const IOPCBrowse& browser, const BrowseOptions& options, const OpcSession::OnElement& onElement);
void browseBy(const IOPCBrowseServerAddressSpace& browser, const BrowseOptions& options,
              const OpcSession::OnElement& onElement);

}  // namespace quelm::opcda::client
