#include "recorder/ReadingStore.h"

#include "support/TempDir.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>

#include <fstream>

namespace ktr::example {
namespace {

class ReadingStoreTest : public ::testing::Test {
protected:
    static StoredReading reading(int second) {
        return {"test", second / 2.0, "°C", "2024-05-01T12:00:0" + std::to_string(second) + "Z"};
    }

    const test::TempDir dir;
    const std::string file = (dir / "readings.db").string();
};

TEST_F(ReadingStoreTest, givesTheNewestFirst) {
    ReadingStore store(file, 100);
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(store.add(reading(i)));
    const auto latest = store.latest(2);
    ASSERT_EQ(2U, latest.size());
    EXPECT_EQ(reading(4).time, latest[0].time);
    EXPECT_DOUBLE_EQ(2.0, latest[0].value);
    EXPECT_EQ("test", latest[0].source);
    EXPECT_EQ("°C", latest[0].unit);
    EXPECT_EQ(reading(3).time, latest[1].time);
}

TEST_F(ReadingStoreTest, isEmptyAtFirst) {
    ReadingStore store(file, 100);
    EXPECT_TRUE(store.latest(10).empty());
    EXPECT_EQ(0, store.count());
}

TEST_F(ReadingStoreTest, givesAllWhenAskedForMore) {
    ReadingStore store(file, 100);
    store.add(reading(1));
    EXPECT_EQ(1U, store.latest(1000).size());
}

TEST_F(ReadingStoreTest, keepsTheNewestOnly) {
    ReadingStore store(file, 3);
    for (int i = 0; i < 8; ++i)
        store.add(reading(i));
    EXPECT_EQ(3, store.count());
    EXPECT_EQ(reading(7).time, store.latest(1).at(0).time);
    EXPECT_EQ(reading(5).time, store.latest(10).back().time);
}

TEST_F(ReadingStoreTest, takesTheSameReadingOnce) {
    ReadingStore store(file, 100);
    EXPECT_TRUE(store.add(reading(1)));
    EXPECT_FALSE(store.add(reading(1)));
    EXPECT_EQ(1, store.count());
}

TEST_F(ReadingStoreTest, findsItsReadingsAgainWhenOpenedAnew) {
    {
        ReadingStore store(file, 100);
        store.add(reading(1));
    }
    ReadingStore store(file, 100);
    EXPECT_EQ(1, store.count());
}

TEST_F(ReadingStoreTest, isNoCommandForTheDatabase) {
    ReadingStore store(file, 100);
    store.add({"'); DROP TABLE readings; --", 1, "x", "2024-05-01T12:00:00Z"});
    EXPECT_EQ("'); DROP TABLE readings; --", store.latest(1).at(0).source);
}

TEST_F(ReadingStoreTest, namesTheFileThatCannotBeOpened) {
    const std::string missing = (dir / "no" / "readings.db").string();
    try {
        const ReadingStore store(missing, 100);
        FAIL() << "no exception";
    } catch (const Poco::Exception& e) {
        EXPECT_THAT(e.displayText(), ::testing::HasSubstr(missing));
    }
}

TEST_F(ReadingStoreTest, refusesAFileThatIsNoDatabase) {
    std::ofstream(file) << std::string(4096, 'x');
    EXPECT_THROW(ReadingStore(file, 100), Poco::Exception);
}

} // namespace
} // namespace ktr::example
