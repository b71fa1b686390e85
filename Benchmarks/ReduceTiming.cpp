// vireo-reduce-timing: times how vireo-render-mpi sums its two attachments
// (radiance and visibility, RGBA floats) over the ranks of a job into rank 0,
// for three frame sizes. Run it under mpirun, one rank per machine:
//   mpirun -np 2 build/default/bin/vireo-reduce-timing
#include "Distributed.h"

#include <algorithm>
#include <cstdio>
#include <vector>

int main(int argc, char** argv)
{
    VireoRender::Distributed group(&argc, &argv);
    struct FrameSize
    {
        const char* name;
        int width, height;
    };
    const FrameSize sizes[] = {{"640x480", 640, 480}, {"1080p", 1920, 1080}, {"4K", 3840, 2160}};
    constexpr int kRepetitions = 7;
    if (group.IsRoot())
        std::printf("%d ranks; median of %d sums of both attachments\n%-8s %10s %10s %10s\n",
                    group.Size(), kRepetitions, "frame", "MB/rank", "ms", "MB/s");
    for (const FrameSize& size : sizes)
    {
        const std::size_t count = static_cast<std::size_t>(size.width) * size.height * 4;
        std::vector<float> radiance(count, 0.5f), visibility(count, 0.5f);
        std::vector<double> seconds;
        for (int repetition = 0; repetition <= kRepetitions; ++repetition)
        {
            MPI_Barrier(MPI_COMM_WORLD);
            const double start = MPI_Wtime();
            group.Sum(radiance.data(), count, true);
            group.Sum(visibility.data(), count, true);
            if (repetition > 0) // the first one warms up
                seconds.push_back(MPI_Wtime() - start);
        }
        std::nth_element(seconds.begin(), seconds.begin() + kRepetitions / 2, seconds.end());
        const double median = seconds[kRepetitions / 2];
        const double megabytes = 2.0 * static_cast<double>(count) * sizeof(float) / 1e6;
        if (group.IsRoot())
            std::printf("%-8s %10.1f %10.2f %10.0f\n", size.name, megabytes, median * 1e3,
                        megabytes / median);
    }
    return 0;
}
