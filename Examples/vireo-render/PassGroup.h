// Who renders the passes of one image: this process alone (SoloGroup), or
// the processes of an MPI job (Distributed.h). The render loop asks the group
// which passes are its own, reports its progress to it and, before the root
// writes the outputs, has it sum the attachments.
#ifndef VIREO_EXAMPLES_RENDER_PASS_GROUP_H
#define VIREO_EXAMPLES_RENDER_PASS_GROUP_H

#include "Progress.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace VireoRender
{

class IPassGroup
{
public:
    virtual ~IPassGroup() = default;

    // Whether this process prints, shows the progress and writes the outputs.
    virtual bool IsRoot() const = 0;
    // Whether this process renders pass `pass` of the image.
    virtual bool Renders(int pass) const = 0;
    // Every process calls these in the same order, whatever failed before.
    // Agree: true when no process failed (`error` empty) and all describe
    // the scene alike; otherwise the root prints why.
    virtual bool Agree(const std::string& description, const std::string& error) = 0;
    // Succeeded: true when no process failed; otherwise the root prints why.
    virtual bool Succeeded(const std::string& error) = 0;
    // The passes rendered by all processes, given this process's.
    virtual int TotalPasses(int rendered) = 0;
    // Sums `count` floats over the processes into the root's `data`. A
    // process that does not `contribute` adds zeros (its `data` may hold
    // anything, or be null).
    virtual bool Sum(float* data, std::size_t count, bool contribute) = 0;

    // Progress: after each pass this process rendered (`rendered` so far).
    virtual void Begin(int totalPasses) = 0;
    virtual void PassDone(int rendered, double raysPerSecond) = 0;
    virtual void End() = 0;
};

class SoloGroup : public IPassGroup
{
public:
    bool IsRoot() const override { return true; }
    bool Renders(int) const override { return true; }
    bool Agree(const std::string&, const std::string& error) override { return Succeeded(error); }
    bool Succeeded(const std::string& error) override
    {
        if (!error.empty())
            std::fprintf(stderr, "vireo-render: %s\n", error.c_str());
        return error.empty();
    }
    int TotalPasses(int rendered) override { return rendered; }
    bool Sum(float*, std::size_t, bool) override { return true; }
    void Begin(int totalPasses) override
    {
        _pProgress = std::make_unique<Progress>(totalPasses, stdout);
    }
    void PassDone(int rendered, double raysPerSecond) override
    {
        _pProgress->PassDone(rendered, raysPerSecond);
    }
    void End() override { _pProgress->Finish(); }

private:
    std::unique_ptr<Progress> _pProgress;
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_PASS_GROUP_H
