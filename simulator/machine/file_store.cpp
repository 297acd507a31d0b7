#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "simulator/machine/state_store.h"

namespace simulator {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~OwnedDescriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

// A mapped page without a disk block would kill the process that first stores into it on a full
// disk, so every block is allocated before the file is mapped. 0 or an error number.
int allocateBlocks(int descriptor, std::size_t size) {
#if defined(__linux__)
    return ::posix_fallocate(descriptor, 0, static_cast<off_t>(size));
#else
    const std::string zeros(1 << 16, '\0');
    for (std::size_t done = 0; done < size;) {
        const ssize_t written =
            ::write(descriptor, zeros.data(), std::min(zeros.size(), size - done));
        if (written <= 0) {
            return written < 0 ? errno : ENOSPC;
        }
        done += static_cast<std::size_t>(written);
    }
    return 0;
#endif
}

std::byte* mapped(int descriptor, std::size_t size, const std::string& path) {
    void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (base == MAP_FAILED) {
        fail("cannot map " + path, errno);
    }
    return static_cast<std::byte*>(base);
}

void initialiseMutex([[maybe_unused]] WorldState& state) {
#if defined(__linux__)
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&state.mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
#endif
}

// The beginning of WorldState, the same in every version.
struct StateHeader {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t headerSize;
    std::uint64_t fileSize;
};

void checkHeader(int descriptor, std::size_t fileSize, const std::string& path) {
    StateHeader header = {};
    if (::pread(descriptor, &header, sizeof header, 0) != sizeof header ||
        header.magic != kStateMagic) {
        throw std::runtime_error(path + " is not the state of a simulated Mac");
    }
    if (header.version != kStateVersion || header.headerSize != sizeof(WorldState)) {
        throw std::runtime_error(path + " was written by another version (format " +
                                 std::to_string(header.version) + "/" +
                                 std::to_string(header.headerSize) + ", this one reads " +
                                 std::to_string(kStateVersion) + "/" +
                                 std::to_string(sizeof(WorldState)) + "); create the machine anew");
    }
    if (header.fileSize != fileSize || fileSize < sizeof(WorldState)) {
        throw std::runtime_error(path + " is incomplete or damaged; create the machine anew");
    }
}

}  // namespace

FileStore::FileStore(int descriptor, std::byte* base, std::size_t size)
    : descriptor_(descriptor), base_(base), size_(size) {}

FileStore::~FileStore() {
    ::munmap(base_, size_);
    ::close(descriptor_);
}

std::unique_ptr<FileStore> FileStore::create(const std::string& path, std::size_t keyCapacity) {
    OwnedDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.get() < 0) {
        fail("cannot create " + path, errno);
    }
    const std::size_t size = sizeFor(keyCapacity);
    if (const int error = allocateBlocks(file.get(), size); error != 0) {
        ::unlink(path.c_str());
        fail("cannot allocate " + std::to_string(size) + " bytes for " + path, error);
    }
    // Processes of any user may attach, as any user may read a Mac's controller.
    ::fchmod(file.get(), 0666);
    std::byte* base = mapped(file.get(), size, path);
    std::unique_ptr<FileStore> store(new FileStore(file.release(), base, size));
    store->pointInto(base, keyCapacity);
    WorldState& state = store->state();
    state.magic = kStateMagic;
    state.version = kStateVersion;
    state.headerSize = sizeof(WorldState);
    state.fileSize = size;
    state.keyCapacity = static_cast<std::uint32_t>(keyCapacity);
    initialiseMutex(state);
    return store;
}

std::unique_ptr<FileStore> FileStore::open(const std::string& path) {
    OwnedDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (file.get() < 0) {
        fail("cannot open " + path, errno);
    }
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0) {
        fail("cannot examine " + path, errno);
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    checkHeader(file.get(), size, path);
    std::byte* base = mapped(file.get(), size, path);
    std::unique_ptr<FileStore> store(new FileStore(file.release(), base, size));
    const auto* header = std::launder(reinterpret_cast<const WorldState*>(base));
    if (size != sizeFor(header->keyCapacity) || header->keyCount > header->keyCapacity ||
        header->ready == 0) {
        throw std::runtime_error(path + " is incomplete or damaged; create the machine anew");
    }
    store->pointInto(base, header->keyCapacity);
    return store;
}

#if defined(__linux__)

bool FileStore::lock() {
    const int result = pthread_mutex_lock(&state().mutex);
    if (result == EOWNERDEAD) {
        pthread_mutex_consistent(&state().mutex);
        return true;
    }
    if (result != 0) {
        fail("cannot lock the simulated Mac", result);
    }
    return false;
}

void FileStore::unlock() {
    pthread_mutex_unlock(&state().mutex);
}

#else

// No robust process-shared mutex: the kernel drops a file lock when its process dies. Whether one
// died is not told, so what it left open is the sign.
bool FileStore::lock() {
    mutex_.lock();
    while (::flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
    return state().openLineSize != 0 || state().openWrite.active != 0 || state().keysBusy != 0;
}

void FileStore::unlock() {
    ::flock(descriptor_, LOCK_UN);
    mutex_.unlock();
}

#endif

void FileStore::reserveKeys(std::size_t count) {
    if (count > state().keyCapacity) {
        throw std::runtime_error("no room for more than " + std::to_string(state().keyCapacity) +
                                 " keys in this machine directory");
    }
}

}  // namespace simulator
