#include "helper/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "tests/helper/session_world.h"

namespace ferovane::testing {
namespace {

TEST(StandardStreamsTest, AReportWhoseReaderHasStoppedIsGivenUp) {
    const Pipe pipe;
    fillPipe(pipe.ends[1]);
    std::promise<void> givenUp;
    std::thread rescue([&, done = givenUp.get_future()] {
        done.wait_for(std::chrono::seconds(20));
        char taken[8192];
        EXPECT_GT(::read(pipe.ends[0], taken, sizeof taken), 0);
    });
    const auto start = std::chrono::steady_clock::now();
    reportLine(pipe.ends[1], "恢复自动风扇失败");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    givenUp.set_value();
    rescue.join();
}

// Exit status of a child that has closed its standard descriptors and may then open only so many.
int childWithoutStandardDescriptors(rlim_t mayOpen) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (int descriptor = 0; descriptor <= 2; ++descriptor) {
            ::close(descriptor);
        }
        const rlimit limit{mayOpen, mayOpen};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const bool said = occupyStandardDescriptors();
        const bool open =
            ::fcntl(0, F_GETFD) != -1 && ::fcntl(1, F_GETFD) != -1 && ::fcntl(2, F_GETFD) != -1;
        ::_exit(said == open ? (open ? 1 : 0) : 2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(StandardStreamsTest, ClosedStandardDescriptorsAreOccupiedOrThatIsTold) {
    EXPECT_EQ(childWithoutStandardDescriptors(16), 1);
    EXPECT_EQ(childWithoutStandardDescriptors(3), 1) << "with room for these and no more";
    EXPECT_EQ(childWithoutStandardDescriptors(2), 0);
    EXPECT_EQ(childWithoutStandardDescriptors(0), 0);
}

TEST(StandardStreamsTest, ALongTextReachesASlowReaderOfAPipeThatDoesNotBlockWhole) {
    Pipe pipe;
    ::fcntl(pipe.ends[1], F_SETFL, O_NONBLOCK);
    const std::string text(300'000, 'y');
    auto reader = std::async(std::launch::async, [&] {
        std::string received;
        char chunk[4096];
        for (ssize_t count; (count = ::read(pipe.ends[0], chunk, sizeof chunk)) > 0;) {
            received.append(chunk, static_cast<std::size_t>(count));
            std::this_thread::yield();
        }
        return received;
    });
    EXPECT_NO_THROW(writeText(pipe.ends[1], text));
    reportLine(pipe.ends[1], text);
    pipe.closeEnd(1);
    EXPECT_TRUE(reader.get() == text + text + "\n");
}

}  // namespace
}  // namespace ferovane::testing
