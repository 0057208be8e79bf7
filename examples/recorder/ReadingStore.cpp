#include "recorder/ReadingStore.h"

#include <Poco/Data/RecordSet.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Transaction.h>
#include <Poco/Exception.h>

namespace ktr::example {

using namespace Poco::Data::Keywords;

namespace {

// a file that cannot be opened now is tried again for so long, in case it is only locked
constexpr std::size_t kOpenSeconds = 1;

Poco::Data::Session open(const std::string& file) {
    Poco::Data::SQLite::Connector::registerConnector();
    try {
        return {Poco::Data::SQLite::Connector::KEY, file, kOpenSeconds};
    } catch (const Poco::Exception& e) {
        throw Poco::OpenFileException("cannot open the database " + file, e.displayText());
    }
}

} // namespace

ReadingStore::ReadingStore(const std::string& file, int keep_) : keep(keep_), session(open(file)) {
    std::string mode;
    session << "PRAGMA journal_mode=WAL", into(mode), now;
    session << "PRAGMA synchronous=NORMAL", now;
    session << "CREATE TABLE IF NOT EXISTS readings("
               "id INTEGER PRIMARY KEY AUTOINCREMENT, source TEXT NOT NULL, value REAL NOT NULL, "
               "unit TEXT NOT NULL, time TEXT NOT NULL, UNIQUE(source, time))",
        now;
}

bool ReadingStore::add(const StoredReading& reading) {
    const std::lock_guard<std::mutex> lock(mutex);
    Poco::Data::Transaction transaction(session);
    session << "INSERT OR IGNORE INTO readings(source, value, unit, time) VALUES(?, ?, ?, ?)",
        bind(reading.source), bind(reading.value), bind(reading.unit), bind(reading.time), now;
    int added = 0;
    session << "SELECT changes()", into(added), now;
    if (added > 0)
        session << "DELETE FROM readings WHERE id <= (SELECT MAX(id) FROM readings) - ?",
            bind(keep), now;
    transaction.commit();
    return added > 0;
}

std::vector<StoredReading> ReadingStore::latest(int limit) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<StoredReading> found;
    StoredReading row;
    Poco::Data::Statement select(session);
    select << "SELECT source, value, unit, time FROM readings ORDER BY id DESC LIMIT ?",
        into(row.source), into(row.value), into(row.unit), into(row.time), bind(limit), range(0, 1);
    while (!select.done())
        if (select.execute() > 0)
            found.push_back(row);
    return found;
}

int ReadingStore::count() {
    const std::lock_guard<std::mutex> lock(mutex);
    int readings = 0;
    session << "SELECT COUNT(*) FROM readings", into(readings), now;
    return readings;
}

} // namespace ktr::example
