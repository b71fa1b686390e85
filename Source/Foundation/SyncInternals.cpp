#include "Foundation/SyncInternals.h"

#include "Foundation/Mutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>

namespace Vireo
{
namespace SyncInternals
{

namespace
{

// The start of every shared object; the payload follows at kPayloadOffset.
struct SegmentHeader
{
    std::atomic<std::uint32_t> nState;
    std::uint32_t nPayloadSize;
};

// Lock-free atomics work the same from any mapping of the same memory.
static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "ready flag must be lock-free");

// Stored once the payload is built; a value that zero-filled memory never has.
constexpr std::uint32_t kReady = 0x52454459u;
constexpr std::size_t kPayloadOffset = 64;
static_assert(sizeof(SegmentHeader) <= kPayloadOffset, "header overlaps the payload");

// A creator needs microseconds between making the object and marking it ready.
// One that has not finished after about a second is taken for dead; its
// leftover is removed and the opener starts again.
constexpr int kSetupPolls = 1000;
constexpr long kSetupPollNs = 1000000L;
constexpr int kOpenAttempts = 4;

constexpr long kNsPerMs = 1000000L;
constexpr long kNsPerSecond = 1000000000L;

// Escaped names longer than this are cut and given a hash of the whole name;
// a shared memory name may have at most NAME_MAX bytes.
constexpr std::size_t kMaxEscapedName = 180;
constexpr std::size_t kKeptEscapedName = 160;

void PauseForSetup()
{
    timespec pause{0, kSetupPollNs};
    nanosleep(&pause, nullptr);
}

bool FlockRetrying(int fd, int operation)
{
    while (flock(fd, operation) != 0)
    {
        if (errno != EINTR)
            return false;
    }
    return true;
}

void AppendUtf8(std::string& out, std::uint32_t codePoint)
{
    if (codePoint > 0x10FFFFu || (codePoint >= 0xD800u && codePoint <= 0xDFFFu))
        codePoint = 0xFFFDu;
    if (codePoint < 0x80u)
    {
        out += static_cast<char>(codePoint);
    }
    else if (codePoint < 0x800u)
    {
        out += static_cast<char>(0xC0u | (codePoint >> 6));
        out += static_cast<char>(0x80u | (codePoint & 0x3Fu));
    }
    else if (codePoint < 0x10000u)
    {
        out += static_cast<char>(0xE0u | (codePoint >> 12));
        out += static_cast<char>(0x80u | ((codePoint >> 6) & 0x3Fu));
        out += static_cast<char>(0x80u | (codePoint & 0x3Fu));
    }
    else
    {
        out += static_cast<char>(0xF0u | (codePoint >> 18));
        out += static_cast<char>(0x80u | ((codePoint >> 12) & 0x3Fu));
        out += static_cast<char>(0x80u | ((codePoint >> 6) & 0x3Fu));
        out += static_cast<char>(0x80u | (codePoint & 0x3Fu));
    }
}

bool IsKeptInName(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

void AppendHex(std::string& out, std::uint64_t value, int digits)
{
    static const char kDigits[] = "0123456789abcdef";
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
        out += kDigits[(value >> shift) & 0xFu];
}

std::uint64_t HashFnv1a(const std::string& text)
{
    std::uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : text)
    {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

// Memory that every process reaches through the same name. The process that
// creates it builds the payload before any other process may touch it. The
// last user to close it removes the name, so that a later user starts over
// with a fresh object, as with a kernel object whose last handle is gone.
//
// Users are counted by the kernel: each one holds a shared file lock on the
// object while it has it open, so a process that dies stops counting at once.
class SharedSegment
{
public:
    SharedSegment() = default;
    ~SharedSegment() { Close(); }
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    // Maps the object `shmName` with `payloadSize` bytes of payload. The
    // creator runs `construct(payload, pContext)` first. Answers the
    // payload, or null if the object cannot be had; then nothing stays open.
    void* Open(const std::string& shmName, std::size_t payloadSize, ConstructShared construct,
               const void* pContext);

    void Close();

private:
    enum eOpenStep
    {
        kOS_Done,
        kOS_Retry,
        kOS_Fail,
    };

    eOpenStep _TryOpen(std::size_t payloadSize, ConstructShared construct, const void* pContext);

    std::string _sName;
    int _nFd = -1;
    void* _pMap = nullptr;
    std::size_t _nMapSize = 0;
    // A child made by fork inherits the descriptor and with it the parent's
    // file lock; only the process that opened the object may count itself
    // out of it.
    pid_t _nOpenerPid = 0;
};

} // namespace

pid_t CurrentThreadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool IsInfinite(unsigned long timeoutMs)
{
    return timeoutMs >= kInfinite;
}

timespec DeadlineAfter(clockid_t clock, unsigned long timeoutMs)
{
    timespec deadline{};
    clock_gettime(clock, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * kNsPerMs;
    if (deadline.tv_nsec >= kNsPerSecond)
    {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNsPerSecond;
    }
    return deadline;
}

void InitRobustMutex(pthread_mutex_t* pMutex, bool bProcessShared, bool bRecursive)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes,
                              bRecursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    if (bProcessShared)
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(pMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void InitMonotonicCondition(pthread_cond_t* pCondition, bool bProcessShared)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (bProcessShared)
        pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(pCondition, &attributes);
    pthread_condattr_destroy(&attributes);
}

int LockWithTimeout(pthread_mutex_t* pMutex, unsigned long timeoutMs)
{
    if (timeoutMs == 0)
        return pthread_mutex_trylock(pMutex);
    if (IsInfinite(timeoutMs))
        return pthread_mutex_lock(pMutex);
    // The timed lock measures on the wall clock. Its monotonic sibling is
    // newer and unknown to the race detectors we test under, which would
    // then lose track of who holds the lock.
    const timespec deadline = DeadlineAfter(CLOCK_REALTIME, timeoutMs);
    int result;
    do
    {
        result = pthread_mutex_timedlock(pMutex, &deadline);
    } while (result == EINTR);
    return result;
}

void LockRepairing(pthread_mutex_t* pMutex)
{
    if (pthread_mutex_lock(pMutex) == EOWNERDEAD)
        pthread_mutex_consistent(pMutex);
}

std::string SegmentName(const char* kind, const wchar_t* name)
{
    std::string utf8;
    for (const wchar_t* p = name; *p != L'\0'; ++p)
        AppendUtf8(utf8, static_cast<std::uint32_t>(*p));

    // Escaping '%' itself (and '~', the mark of a cut name) keeps the mapping
    // from caller names to object names one-to-one.
    std::string escaped;
    for (unsigned char c : utf8)
    {
        if (IsKeptInName(c))
        {
            escaped += static_cast<char>(c);
        }
        else
        {
            escaped += '%';
            AppendHex(escaped, c, 2);
        }
    }
    if (escaped.size() > kMaxEscapedName)
    {
        escaped.resize(kKeptEscapedName);
        escaped += '~';
        AppendHex(escaped, HashFnv1a(utf8), 16);
    }

    std::string result = "/vireo.";
    result += kind;
    result += '.';
    result += escaped;
    return result;
}

void* SharedSegment::Open(const std::string& shmName, std::size_t payloadSize,
                          ConstructShared construct, const void* pContext)
{
    Close();
    _sName = shmName;
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt)
    {
        const eOpenStep step = _TryOpen(payloadSize, construct, pContext);
        if (step == kOS_Done)
            return static_cast<char*>(_pMap) + kPayloadOffset;
        // Counting ourselves out also removes a leftover that nobody uses,
        // such as one whose creator died half-way.
        Close();
        if (step == kOS_Fail)
            break;
    }
    return nullptr;
}

SharedSegment::eOpenStep SharedSegment::_TryOpen(std::size_t payloadSize, ConstructShared construct,
                                                 const void* pContext)
{
    _nOpenerPid = getpid();
    bool bCreator = true;
    int fd = shm_open(_sName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0)
    {
        if (errno != EEXIST)
            return kOS_Fail;
        bCreator = false;
        fd = shm_open(_sName.c_str(), O_RDWR, 0);
        if (fd < 0)
            return errno == ENOENT ? kOS_Retry : kOS_Fail;
    }
    _nFd = fd;

    if (!FlockRetrying(fd, LOCK_SH))
        return kOS_Fail;
    struct stat status
    {
    };
    if (fstat(fd, &status) != 0)
        return kOS_Fail;
    // Its last user removed it between our open and our lock.
    if (status.st_nlink == 0)
        return kOS_Retry;

    const std::size_t total = kPayloadOffset + payloadSize;
    if (bCreator)
    {
        if (ftruncate(fd, static_cast<off_t>(total)) != 0)
            return kOS_Fail;
    }
    else
    {
        for (int poll = 0; status.st_size == 0 && poll < kSetupPolls; ++poll)
        {
            PauseForSetup();
            if (fstat(fd, &status) != 0)
                return kOS_Fail;
        }
        // Unsized: the creator died. Another size: a stranger's object or an
        // older layout. Either way we cannot use it; if nobody else does,
        // Close removes it and the next attempt creates a fresh one.
        if (static_cast<std::size_t>(status.st_size) != total)
            return kOS_Retry;
    }

    void* pMap = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pMap == MAP_FAILED)
        return kOS_Fail;
    _pMap = pMap;
    _nMapSize = total;
    void* pPayload = static_cast<char*>(pMap) + kPayloadOffset;

    if (bCreator)
    {
        SegmentHeader* pHeader = new (pMap) SegmentHeader{};
        pHeader->nPayloadSize = static_cast<std::uint32_t>(payloadSize);
        construct(pPayload, pContext);
        pHeader->nState.store(kReady, std::memory_order_release);
        return kOS_Done;
    }

    auto* pHeader = static_cast<SegmentHeader*>(pMap);
    for (int poll = 0;
         pHeader->nState.load(std::memory_order_acquire) != kReady && poll < kSetupPolls; ++poll)
        PauseForSetup();
    if (pHeader->nState.load(std::memory_order_acquire) != kReady ||
        pHeader->nPayloadSize != payloadSize)
        return kOS_Retry;
    return kOS_Done;
}

void SharedSegment::Close()
{
    if (_pMap != nullptr)
    {
        munmap(_pMap, _nMapSize);
        _pMap = nullptr;
        _nMapSize = 0;
    }
    if (_nFd < 0)
        return;
    // Only the last user can trade its shared lock for an exclusive one. If
    // our object has lost its name already, the name may now stand for a
    // newer object, which is not ours to remove.
    if (_nOpenerPid == getpid() && flock(_nFd, LOCK_EX | LOCK_NB) == 0)
    {
        struct stat status
        {
        };
        if (fstat(_nFd, &status) == 0 && status.st_nlink > 0)
            shm_unlink(_sName.c_str());
    }
    close(_nFd);
    _nFd = -1;
}

namespace
{

// This process's views of named objects, one per name.
struct SharedView
{
    SharedSegment segment;
    void* pPayload = nullptr;
    int nUsers = 0;
};

struct SharedViews
{
    std::mutex guard;
    std::map<std::string, std::unique_ptr<SharedView>> views;
};

// Never destroyed: objects with static storage may close after it would be.
SharedViews& Views()
{
    static SharedViews* s_pViews = new SharedViews;
    return *s_pViews;
}

} // namespace

void* OpenShared(const std::string& shmName, std::size_t payloadSize, ConstructShared construct,
                 const void* pContext)
{
    SharedViews& views = Views();
    std::lock_guard<std::mutex> guard(views.guard);
    std::unique_ptr<SharedView>& pView = views.views[shmName];
    if (!pView)
    {
        auto pNew = std::make_unique<SharedView>();
        pNew->pPayload = pNew->segment.Open(shmName, payloadSize, construct, pContext);
        if (pNew->pPayload == nullptr)
        {
            views.views.erase(shmName);
            return nullptr;
        }
        pView = std::move(pNew);
    }
    pView->nUsers += 1;
    return pView->pPayload;
}

void CloseShared(const std::string& shmName, LeaveShared lastInProcess)
{
    SharedViews& views = Views();
    std::lock_guard<std::mutex> guard(views.guard);
    auto found = views.views.find(shmName);
    if (found == views.views.end())
        return;
    SharedView& view = *found->second;
    if (--view.nUsers > 0)
        return;
    if (lastInProcess != nullptr)
        lastInProcess(view.pPayload);
    views.views.erase(found);
}

} // namespace SyncInternals
} // namespace Vireo
