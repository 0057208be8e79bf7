#pragma once

#include "Host.h"
#include "Inbox.h"
#include "TempRoot.h"

#include <memory>
#include <string>
#include <vector>

namespace ktr::testkit {

/// Files a record for each of `guids`, whose object puts its events into `inbox`. Throws
/// std::runtime_error if that fails.
void fileListeners(const Host& host, const TempRoot& root, const std::vector<std::string>& guids,
                   const std::shared_ptr<Inbox>& inbox);

/// Has their objects made and returns when all are. Throws std::runtime_error if that takes longer
/// than `deadline`.
void activateListeners(const Host& host, const std::vector<std::string>& guids, Inbox& inbox,
                       std::chrono::milliseconds deadline);

} // namespace ktr::testkit
