/// \file
/// The handler that failed assertions of the wrapper go to.
#ifndef VIREO_CORE_INTERFACES_IASSERTHANDLER_H
#define VIREO_CORE_INTERFACES_IASSERTHANDLER_H

#include <cstdint>

namespace Vireo
{

/// What a host implements to decide what a failed assertion of the library
/// does; installed with SetActiveAssertHandler.
class IAssertHandler
{
public:
    /// What a handler answers.
    enum Answer
    {
        kAnswer_Continue = 0, ///< go on; ask again next time the site fails
        kAnswer_Ignore = 1,   ///< go on; never ask for this site again
        kAnswer_Break = 2,    ///< break into the debugger if one is attached
    };

    virtual ~IAssertHandler() = default;
    /// expression: the failed condition as text; context: always 0 from the
    /// wrapper. Called on whatever thread failed, without a lock.
    virtual int HandleAssert(const char* expression, int line, const char* file,
                             std::uintptr_t context) = 0;
};

} // namespace Vireo

#endif // VIREO_CORE_INTERFACES_IASSERTHANDLER_H
