// The queue between the capture's reader and writer: bytes come out as they went in, a full
// queue drops and counts in episodes, and emptied memory goes back.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "captureRing.h"

namespace {

using std::chrono::milliseconds;

std::string gather(const std::vector<iovec>& parts) {
    std::string bytes;
    for (const iovec& part : parts) {
        bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
    }
    return bytes;
}

size_t put(CaptureRing& ring, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        size_t room = 0;
        char* place = ring.writeSpace(bytes.size() - done, room);
        if (place == nullptr) {
            break;
        }
        bytes.copy(place, room, done);
        ring.commit(room);
        done += room;
    }
    return done;
}

// A reader and a writer on two threads, with reads and writes of every size: the writer gets
// the stream unchanged, and the blocks it emptied do not stay mapped.
TEST(CaptureRing, TwoThreadsPassTheStreamUnchanged) {
    CaptureRing ring(4 * CaptureRing::kBlockBytes, milliseconds(50));
    constexpr size_t kTotal = 24 * CaptureRing::kBlockBytes + 12345;
    std::string sent(kTotal, '\0');
    std::mt19937 random(7);
    for (char& c : sent) {
        c = static_cast<char>(random());
    }
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::mt19937 sizes(11);
        size_t at = 0;
        while (at < kTotal) {
            const size_t wanted = std::min<size_t>(kTotal - at, 1 + sizes() % 70000);
            size_t room = 0;
            char* place = ring.writeSpace(wanted, room);
            if (place == nullptr) {
                std::this_thread::yield();  // full: this test wants no loss, so it waits
                continue;
            }
            sent.copy(place, room, at);
            ring.commit(room);
            at += room;
            if (sizes() % 4 == 0) {
                ring.publish();
            }
        }
        ring.publish();
        done = true;
        ring.wakeWriter();
    });
    std::string received;
    std::vector<iovec> parts;
    std::mt19937 limits(13);
    while (received.size() < kTotal) {
        const bool last = done;
        const size_t taken = ring.peek(parts, 1 + limits() % 300000, milliseconds(50));
        const std::string bytes = gather(parts);
        ASSERT_EQ(taken, bytes.size());
        // Sometimes only part of what was described is stored.
        const size_t stored = taken > 1 && limits() % 3 == 0 ? taken / 2 : taken;
        received += bytes.substr(0, stored);
        ring.consume(stored);
        ASSERT_FALSE(last && taken == 0 && received.size() < kTotal) << "bytes went missing";
    }
    reader.join();
    EXPECT_TRUE(received == sent) << "the stream changed on its way";
    EXPECT_EQ(0u, ring.queuedBytes());
    EXPECT_EQ(0u, ring.lostBytes());
    // The reader's last block and at most one spare.
    EXPECT_LE(ring.mappedBlocks(), 2u);
}

// A full queue takes nothing; what the reader could not queue is counted, and each stretch
// of dropping is one episode, told once, ended by the next bytes queued or by the stop.
TEST(CaptureRing, AFullQueueDropsAndCountsInEpisodes) {
    CaptureRing ring(2 * CaptureRing::kBlockBytes, milliseconds(50));
    const std::string block(CaptureRing::kBlockBytes, 'x');
    ASSERT_EQ(block.size(), put(ring, block));
    ASSERT_EQ(block.size(), put(ring, block));
    size_t room = 7;
    EXPECT_EQ(nullptr, ring.writeSpace(100, room));
    EXPECT_EQ(0u, room);

    ring.drop(1000);
    ring.drop(500);
    EXPECT_TRUE(ring.takeLosses(false).empty()) << "an episode still going on is not told";
    std::vector<iovec> parts;
    ASSERT_EQ(block.size(), ring.peek(parts, block.size(), milliseconds(0)));
    ring.consume(block.size());
    EXPECT_EQ(block.size(), put(ring, block));  // room again: the episode is over
    std::vector<LossEpisode> losses = ring.takeLosses(false);
    ASSERT_EQ(1u, losses.size());
    EXPECT_EQ(1500u, losses[0].bytes);
    EXPECT_LE(losses[0].startMs, losses[0].endMs);
    EXPECT_TRUE(ring.takeLosses(false).empty()) << "an episode is told once";

    ring.drop(42);
    losses = ring.takeLosses(true);
    ASSERT_EQ(1u, losses.size());
    EXPECT_EQ(42u, losses[0].bytes);
    EXPECT_EQ(1542u, ring.lostBytes());
    EXPECT_EQ(2u, ring.droppedEpisodes());
}

// The writer sleeps through small reads and wakes for a published batch, a full queue or a
// stop; a peek that times out describes nothing new but what is queued.
TEST(CaptureRing, TheWriterWakesForBatchesNotForEveryRead) {
    CaptureRing ring(8 * CaptureRing::kBlockBytes, milliseconds(50));
    std::vector<iovec> parts;
    put(ring, std::string(100, 'a'));
    const auto start = std::chrono::steady_clock::now();
    std::thread waker([&] {
        std::this_thread::sleep_for(milliseconds(100));
        ring.publish();
    });
    EXPECT_EQ(100u, ring.peek(parts, 1 << 20, milliseconds(5000)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(90));
    waker.join();
    ring.consume(100);

    // A batch as large as the wake-up threshold needs no publish.
    put(ring, std::string(CaptureRing::kBatchBytes, 'b'));
    EXPECT_EQ(CaptureRing::kBatchBytes, ring.peek(parts, 1 << 20, milliseconds(5000)));
    ring.consume(CaptureRing::kBatchBytes);

    // A small batch is told once its oldest byte has waited most of the delay, and no sooner.
    EXPECT_EQ(-1, ring.msUntilDue());
    put(ring, std::string(10, 'c'));
    const int due = ring.msUntilDue();
    EXPECT_GT(due, 0);
    EXPECT_LE(due, 50);
    const auto queued = std::chrono::steady_clock::now();
    std::thread reader([&] {
        while (ring.msUntilDue() != -1) {
            ring.publishIfDue();
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    EXPECT_EQ(10u, ring.peek(parts, 1 << 20, milliseconds(5000)));
    const auto waited = std::chrono::steady_clock::now() - queued;
    EXPECT_GE(waited, milliseconds(40)) << "told before most of the delay";
    EXPECT_LT(waited, milliseconds(4000));
    reader.join();
    ring.consume(10);

    std::thread stopper([&] {
        std::this_thread::sleep_for(milliseconds(50));
        ring.wakeWriter();
    });
    EXPECT_EQ(0u, ring.peek(parts, 1 << 20, milliseconds(5000)));
    stopper.join();
}

}  // namespace
