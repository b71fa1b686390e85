/// \file
/// Uncopyable: the base of the lock and event classes. A lock is tied to its
/// address (the platform keeps pointers into it, waiters queue on it), so a
/// copy would be a second, unrelated lock that only looks like the first.
#ifndef VIREO_FOUNDATION_UNCOPYABLE_H
#define VIREO_FOUNDATION_UNCOPYABLE_H

#include "VireoExport.h"

namespace Vireo
{

/// Base of the classes that must not be copied, such as locks and events.
class VIREO_EXPORT Uncopyable
{
public:
    Uncopyable(const Uncopyable&) = delete;
    Uncopyable& operator=(const Uncopyable&) = delete;

protected:
    /// Protected and non-virtual: only a derived class makes or ends one, and
    /// nobody deletes a lock through this base.
    Uncopyable() = default;
    ~Uncopyable() = default;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_UNCOPYABLE_H
