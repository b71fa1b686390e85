#include "Distributed.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace VireoRender
{

namespace
{

constexpr int kProgressTag = 1;
constexpr int kFinalTag = 2;

// One process's word in a collective check: its scene's hash and what went
// wrong there, if anything. Sent as bytes: every rank runs this program.
struct Verdict
{
    std::uint64_t hash = 0;
    char error[248] = {};
};

} // namespace

std::uint64_t DescriptionHash(const std::string& text)
{
    std::uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : text)
        hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

Distributed::Distributed(int* argc, char*** argv)
{
    int provided = MPI_THREAD_SINGLE;
    MPI_Init_thread(argc, argv, MPI_THREAD_SERIALIZED, &provided);
    MPI_Comm_rank(MPI_COMM_WORLD, &_nRank);
    MPI_Comm_size(MPI_COMM_WORLD, &_nSize);
    if (provided < MPI_THREAD_SERIALIZED)
    {
        // The root's progress thread receives while its main thread renders.
        std::fprintf(stderr, "vireo-render: this MPI offers no MPI_THREAD_SERIALIZED\n");
        MPI_Abort(MPI_COMM_WORLD, 1);
    }
    // Progress travels apart from the collectives' traffic.
    MPI_Comm_dup(MPI_COMM_WORLD, &_progressComm);
}

Distributed::~Distributed()
{
    if (_progressThread.joinable())
    {
        _bAbandoned.store(true);
        _progressThread.join();
    }
    MPI_Comm_free(&_progressComm);
    MPI_Finalize();
}

bool Distributed::_Gather(std::uint64_t hash, const std::string& error)
{
    Verdict mine;
    mine.hash = hash;
    std::strncpy(mine.error, error.c_str(), sizeof(mine.error) - 1);
    std::vector<Verdict> all(IsRoot() ? static_cast<std::size_t>(_nSize) : 0);
    MPI_Gather(&mine, sizeof(Verdict), MPI_BYTE, all.data(), sizeof(Verdict), MPI_BYTE, 0,
               MPI_COMM_WORLD);
    int good = 1;
    if (IsRoot())
    {
        for (int rank = 0; rank < _nSize; ++rank)
        {
            const Verdict& theirs = all[static_cast<std::size_t>(rank)];
            if (theirs.error[0] != '\0')
            {
                std::fprintf(stderr, "vireo-render: rank %d: %s\n", rank, theirs.error);
                good = 0;
            }
            else if (theirs.hash != all[0].hash)
            {
                std::fprintf(stderr,
                             "vireo-render: rank %d was given another scene than rank 0 (scene "
                             "hash %016llx, not %016llx): start every rank with the same scene "
                             "and options\n",
                             rank, static_cast<unsigned long long>(theirs.hash),
                             static_cast<unsigned long long>(all[0].hash));
                good = 0;
            }
        }
    }
    MPI_Bcast(&good, 1, MPI_INT, 0, MPI_COMM_WORLD);
    return good != 0;
}

bool Distributed::Agree(const std::string& description, const std::string& error)
{
    return _Gather(DescriptionHash(description), error);
}

bool Distributed::Succeeded(const std::string& error)
{
    return _Gather(0, error);
}

int Distributed::TotalPasses(int rendered)
{
    int total = 0;
    MPI_Allreduce(&rendered, &total, 1, MPI_INT, MPI_SUM, MPI_COMM_WORLD);
    return total;
}

bool Distributed::Sum(float* data, std::size_t count, bool contribute)
{
    // In place on the root; in chunks, so that MPI's own buffers stay small
    // whatever the frame's size.
    std::vector<float> zeros;
    if (!contribute && !IsRoot())
        zeros.assign(std::min(count, kChunkFloats), 0.0f);
    for (std::size_t offset = 0; offset < count; offset += kChunkFloats)
    {
        const std::size_t n = std::min(kChunkFloats, count - offset);
        float* part = data != nullptr ? data + offset : nullptr;
        int result = MPI_SUCCESS;
        if (IsRoot())
        {
            if (part == nullptr)
                return false;
            if (!contribute)
                std::fill(part, part + n, 0.0f);
            result = MPI_Reduce(MPI_IN_PLACE, part, static_cast<int>(n), MPI_FLOAT, MPI_SUM, 0,
                                MPI_COMM_WORLD);
        }
        else
        {
            result = MPI_Reduce(contribute && part != nullptr ? part : zeros.data(), nullptr,
                                static_cast<int>(n), MPI_FLOAT, MPI_SUM, 0, MPI_COMM_WORLD);
        }
        if (result != MPI_SUCCESS)
            return false;
    }
    return true;
}

void Distributed::Begin(int totalPasses)
{
    if (!IsRoot())
        return;
    _passes.assign(static_cast<std::size_t>(_nSize), 0);
    _rates.assign(static_cast<std::size_t>(_nSize), 0.0);
    std::printf("%d ranks, %d passes\n", _nSize, totalPasses);
    std::fflush(stdout);
    _pProgress = std::make_unique<Progress>(totalPasses, stdout);
    _start = std::chrono::steady_clock::now();
    // Receives the other ranks' reports while the main thread renders; it
    // polls, so that it never takes a core from the render. Until End the
    // main thread makes no MPI call, so one thread at a time calls MPI.
    _progressThread = std::thread(
        [this]()
        {
            int finals = 0;
            int drawn = 0;
            while (!_bAbandoned.load() && (finals < _nSize - 1 || !_bRootDone.load()))
            {
                bool received = false;
                {
                    int waiting = 0;
                    MPI_Status status;
                    MPI_Iprobe(MPI_ANY_SOURCE, MPI_ANY_TAG, _progressComm, &waiting, &status);
                    if (waiting != 0)
                    {
                        double report[2] = {};
                        MPI_Recv(report, 2, MPI_DOUBLE, status.MPI_SOURCE, status.MPI_TAG,
                                 _progressComm, MPI_STATUS_IGNORE);
                        std::lock_guard<std::mutex> guard(_progressMutex);
                        _passes[static_cast<std::size_t>(status.MPI_SOURCE)] =
                            static_cast<int>(report[0]);
                        _rates[static_cast<std::size_t>(status.MPI_SOURCE)] = report[1];
                        finals += status.MPI_TAG == kFinalTag ? 1 : 0;
                        received = true;
                    }
                }
                int done = 0;
                double rate = 0.0;
                {
                    std::lock_guard<std::mutex> guard(_progressMutex);
                    for (std::size_t rank = 0; rank < _passes.size(); ++rank)
                    {
                        done += _passes[rank];
                        rate += _rates[rank];
                    }
                }
                if (done != drawn)
                {
                    _pProgress->PassDone(done, rate);
                    drawn = done;
                }
                if (!received)
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
}

void Distributed::_Send(int tag, int rendered, double raysPerSecond)
{
    Report& report = _pending.emplace_back();
    report.values[0] = rendered;
    report.values[1] = raysPerSecond;
    MPI_Isend(report.values, 2, MPI_DOUBLE, 0, tag, _progressComm, &report.request);
    // Forget the reports that have left.
    while (!_pending.empty())
    {
        int sent = 0;
        MPI_Test(&_pending.front().request, &sent, MPI_STATUS_IGNORE);
        if (sent == 0)
            break;
        _pending.pop_front();
    }
}

void Distributed::PassDone(int rendered, double raysPerSecond)
{
    _nRendered = rendered;
    _fRate = raysPerSecond;
    if (IsRoot())
    {
        std::lock_guard<std::mutex> guard(_progressMutex);
        _passes[0] = rendered;
        _rates[0] = raysPerSecond;
        return;
    }
    _Send(kProgressTag, rendered, raysPerSecond);
}

void Distributed::End()
{
    if (!IsRoot())
    {
        _Send(kFinalTag, _nRendered, 0.0);
        for (Report& report : _pending)
            MPI_Wait(&report.request, MPI_STATUS_IGNORE);
        _pending.clear();
        return;
    }
    _bRootDone.store(true);
    if (_progressThread.joinable())
        _progressThread.join();
    _pProgress->Finish();
    // The job's rate: what scripts measure scaling with.
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    int passes = 0;
    for (const int done : _passes)
        passes += done;
    std::printf("%d passes on %d ranks in %.2f s: %.3f passes/s\n", passes, _nSize, seconds,
                seconds > 0.0 ? passes / seconds : 0.0);
}

} // namespace VireoRender
