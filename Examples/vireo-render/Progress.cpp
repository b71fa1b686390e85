#include "Progress.h"

#include <unistd.h>

#include <string>

namespace VireoRender
{

namespace
{

constexpr int kBarWidth = 30;

std::string Duration(double seconds)
{
    const long total = static_cast<long>(seconds + 0.5);
    char text[32];
    std::snprintf(text, sizeof(text), "%ld:%02ld", total / 60, total % 60);
    return text;
}

} // namespace

Progress::Progress(int totalPasses, std::FILE* stream)
    : _nTotal(totalPasses), _pStream(stream), _bTerminal(isatty(fileno(stream)) != 0),
      _start(std::chrono::steady_clock::now())
{
}

void Progress::PassDone(int passesDone, double raysPerSecond)
{
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    const double left = passesDone > 0 ? elapsed / passesDone * (_nTotal - passesDone) : 0.0;
    const double mrays = raysPerSecond / 1e6;
    if (!_bTerminal)
    {
        std::fprintf(_pStream, "pass %d/%d  %.2f Mrays/s  %s left\n", passesDone, _nTotal, mrays,
                     Duration(left).c_str());
        std::fflush(_pStream);
        return;
    }
    const int filled = _nTotal > 0 ? kBarWidth * passesDone / _nTotal : kBarWidth;
    const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                            std::string(static_cast<std::size_t>(kBarWidth - filled), '.');
    std::fprintf(_pStream, "\r[%s] %d/%d passes  %.2f Mrays/s  %s left \x1b[K", bar.c_str(),
                 passesDone, _nTotal, mrays, Duration(left).c_str());
    std::fflush(_pStream);
    _bDrawn = true;
}

void Progress::Finish()
{
    if (_bDrawn)
        std::fputc('\n', _pStream);
    _bDrawn = false;
}

} // namespace VireoRender
