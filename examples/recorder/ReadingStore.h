#pragma once

#include <Poco/Data/Session.h>

#include <mutex>
#include <string>
#include <vector>

namespace ktr::example {

struct StoredReading {
    std::string source;
    double value = 0;
    std::string unit;
    std::string time;
};

/// The newest readings, in an SQLite file. A reading that was stored survives the end of the
/// process; a loss of power may cost the last ones, but never the file's consistency.
///
/// Thread safety: all functions may be called from any thread. Failures of the database throw a
/// Poco::Data::DataException.
class ReadingStore {
public:
    /// Opens `file`, or makes it. Keeps the `keep` (at least 1) newest readings.
    ReadingStore(const std::string& file, int keep);

    /// False if there is a reading of the same source and time already, which then stays.
    bool add(const StoredReading& reading);
    /// Newest first: in the reverse order of their arrival.
    std::vector<StoredReading> latest(int limit);
    int count();

private:
    const int keep;
    std::mutex mutex;
    Poco::Data::Session session;
};

} // namespace ktr::example
