#pragma once

namespace ktr::bench {

/// An event of 1 KiB is parsed, queued, handed to the pool and delivered to a single plugin.
void countIntake();

/// An event is taken in and delivered to ten plugins.
void countDelivery();

/// A report comes over a connection that stays, is answered, and has its plugin made and started.
void countReport();

/// One of 50 plugin libraries is listed, opened, described and filed.
void countLoading();

/// Supervision looks once after 50 services, none of which has exited.
void countScan();

} // namespace ktr::bench
