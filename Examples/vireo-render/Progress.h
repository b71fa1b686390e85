// Progress of a render: a bar that redraws itself on a terminal, plain lines
// otherwise (logs, pipes, CI).
#ifndef VIREO_EXAMPLES_RENDER_PROGRESS_H
#define VIREO_EXAMPLES_RENDER_PROGRESS_H

#include <chrono>
#include <cstdio>

namespace VireoRender
{

class Progress
{
public:
    Progress(int totalPasses, std::FILE* stream);

    // After each pass: `raysPerSecond` is that pass's figure.
    void PassDone(int passesDone, double raysPerSecond);
    // Ends the bar's line, if one is drawn.
    void Finish();

private:
    int _nTotal;
    std::FILE* _pStream;
    bool _bTerminal;
    bool _bDrawn = false;
    std::chrono::steady_clock::time_point _start;
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_PROGRESS_H
