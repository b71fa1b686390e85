// The passes of one image shared by the processes of an MPI job: rank r
// renders the passes i with i mod size == r, and rank 0 sums the others'
// attachments into its own and writes the outputs. Built only with MPI.
#ifndef VIREO_EXAMPLES_RENDER_DISTRIBUTED_H
#define VIREO_EXAMPLES_RENDER_DISTRIBUTED_H

#include "PassGroup.h"

#include <mpi.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace VireoRender
{

// FNV-1a of `text`: the same on every machine, unlike std::hash.
std::uint64_t DescriptionHash(const std::string& text);

class Distributed : public IPassGroup
{
public:
    // Starts MPI; call before any other thread exists that should not see
    // its signals. Ends it on destruction.
    Distributed(int* argc, char*** argv);
    ~Distributed() override;
    Distributed(const Distributed&) = delete;
    Distributed& operator=(const Distributed&) = delete;

    int Rank() const { return _nRank; }
    int Size() const { return _nSize; }

    bool IsRoot() const override { return _nRank == 0; }
    bool Renders(int pass) const override { return pass % _nSize == _nRank; }
    bool Agree(const std::string& description, const std::string& error) override;
    bool Succeeded(const std::string& error) override;
    int TotalPasses(int rendered) override;
    bool Sum(float* data, std::size_t count, bool contribute) override;
    void Begin(int totalPasses) override;
    void PassDone(int rendered, double raysPerSecond) override;
    void End() override;

    // Floats per MPI_Reduce: bounds what the reduce itself holds.
    static constexpr std::size_t kChunkFloats = std::size_t(1) << 20;

private:
    // A progress report on its way to the root: passes rendered, rays/s.
    struct Report
    {
        double values[2] = {};
        MPI_Request request = MPI_REQUEST_NULL;
    };

    bool _Gather(std::uint64_t hash, const std::string& error);
    void _DrawProgress();
    void _Send(int tag, int rendered, double raysPerSecond);

    int _nRank = 0;
    int _nSize = 1;
    int _nRendered = 0;
    double _fRate = 0.0;
    MPI_Comm _progressComm = MPI_COMM_NULL;
    std::mutex _progressMutex; // _passes and _rates
    std::vector<int> _passes;
    std::vector<double> _rates;
    std::atomic<bool> _bRootDone{false};
    std::atomic<bool> _bAbandoned{false}; // End never came
    std::thread _progressThread;
    std::unique_ptr<Progress> _pProgress;
    std::chrono::steady_clock::time_point _start;
    std::deque<Report> _pending; // reports whose send may not have finished
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_DISTRIBUTED_H
