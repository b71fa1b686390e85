// The pattern that every Create/Destroy pair of KestrelContextImp follows.
// Private to the library: hosts only see the pairs themselves.
#ifndef VIREO_KESTRELWRAPPER_OBJECTFACTORY_H
#define VIREO_KESTRELWRAPPER_OBJECTFACTORY_H

#include <memory>

namespace Vireo
{
namespace Factory
{

// Runs the kind's second step on a fresh object. A failed step deletes the
// half-made object and leaves the count alone; success counts it out.
template <class Concrete, class SecondStep>
Concrete* MakeCounted(std::unique_ptr<Concrete> object, SecondStep&& secondStep, int& count)
{
    if (!secondStep(*object))
        return nullptr;
    ++count;
    return object.release();
}

// Kinds without a second step always count.
template <class Concrete>
Concrete* MakeCounted(std::unique_ptr<Concrete> object, int& count)
{
    ++count;
    return object.release();
}

// Takes back an object of the kind: null or a foreign implementation of the
// interface is refused untouched. The object dies as its concrete class,
// which is also what lets interfaces without a virtual destructor be freed.
template <class Concrete, class Interface>
bool DestroyCounted(Interface* object, int& count)
{
    auto* concrete = dynamic_cast<Concrete*>(object);
    if (concrete == nullptr)
        return false;
    delete concrete;
    --count;
    return true;
}

} // namespace Factory
} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_OBJECTFACTORY_H
