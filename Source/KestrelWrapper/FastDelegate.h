/// \file
/// Listeners: a delegate is a target object and a member function of its
/// class, small enough to copy by value, callable, and strictly ordered so
/// that a listener list can be an ordered set without duplicates.
///
///   class Watcher { public: bool OnChange(); };
///   Watcher watcher;
///   fastdelegate::FastDelegate0<bool> listener(&watcher, &Watcher::OnChange);
///   shader->AddListenerChange(listener);
#ifndef VIREO_KESTRELWRAPPER_FASTDELEGATE_H
#define VIREO_KESTRELWRAPPER_FASTDELEGATE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>

namespace fastdelegate
{

namespace detail
{

/// Room for any member-function pointer the supported compilers make: two
/// words under the Itanium ABI, up to four under others.
constexpr std::size_t kFunctionBytes = 4 * sizeof(void*);

/// What every delegate holds, whatever its signature: the target address and
/// the member function's bytes, zero-padded so that two representations of
/// different sizes still compare byte by byte.
class DelegateData
{
public:
    DelegateData() = default;

    template <class Class, class Method>
    DelegateData(Class* object, Method method)
        : _pTarget(const_cast<void*>(static_cast<const void*>(object)))
    {
        static_assert(sizeof(Method) <= kFunctionBytes, "member-function pointer too large");
        std::memcpy(_aFunction, &method, sizeof(Method));
    }

    template <class Method>
    Method FunctionAs() const
    {
        Method method;
        std::memcpy(&method, _aFunction, sizeof(Method));
        return method;
    }

    void* Target() const { return _pTarget; }

    /// Lower target address first, as an unsigned number; on one target, the
    /// function bytes decide from the first byte on.
    bool operator<(const DelegateData& other) const
    {
        const auto mine = reinterpret_cast<std::uintptr_t>(_pTarget);
        const auto theirs = reinterpret_cast<std::uintptr_t>(other._pTarget);
        if (mine != theirs)
            return mine < theirs;
        return std::memcmp(_aFunction, other._aFunction, kFunctionBytes) < 0;
    }
    bool operator==(const DelegateData& other) const
    {
        return !(*this < other) && !(other < *this);
    }

private:
    void* _pTarget = nullptr;
    unsigned char _aFunction[kFunctionBytes] = {};
};

} // namespace detail

/// A listener without arguments. An empty delegate, called, gives RetType().
template <class RetType>
class FastDelegate0
{
public:
    FastDelegate0() = default;

    /// Calls `method` on `object`.
    template <class Class>
    FastDelegate0(Class* object, RetType (Class::*method)())
        : _data(object, method), _pInvoke(&Invoke<Class, RetType (Class::*)()>)
    {
    }
    /// Calls the const `method` on `object`.
    template <class Class>
    FastDelegate0(const Class* object, RetType (Class::*method)() const)
        : _data(object, method), _pInvoke(&Invoke<const Class, RetType (Class::*)() const>)
    {
    }

    /// Makes the delegate call `method` on `object` from now on.
    template <class Class>
    void Bind(Class* object, RetType (Class::*method)())
    {
        *this = FastDelegate0(object, method);
    }

    /// Calls the target; an empty delegate gives RetType().
    RetType operator()() const
    {
        if (_pInvoke == nullptr)
            return RetType();
        return _pInvoke(_data);
    }

    /// True when the delegate has no target.
    bool empty() const { return _pInvoke == nullptr; }
    /// Makes the delegate empty.
    void clear() { *this = FastDelegate0(); }

    /// \name Ordering
    /// @{

    /// Strict order by target, then member function: listener lists are
    /// ordered sets of delegates.
    bool operator<(const FastDelegate0& other) const { return _data < other._data; }
    bool operator==(const FastDelegate0& other) const { return _data == other._data; }
    bool operator!=(const FastDelegate0& other) const { return !(_data == other._data); }
    /// @}

private:
    template <class Class, class Method>
    static RetType Invoke(const detail::DelegateData& data)
    {
        Class* object = static_cast<Class*>(data.Target());
        return (object->*data.FunctionAs<Method>())();
    }

    detail::DelegateData _data;
    RetType (*_pInvoke)(const detail::DelegateData&) = nullptr;
};

/// A listener of one argument. An empty delegate, called, gives RetType().
template <class Param1, class RetType>
class FastDelegate1
{
public:
    FastDelegate1() = default;

    /// Calls `method` on `object`.
    template <class Class>
    FastDelegate1(Class* object, RetType (Class::*method)(Param1))
        : _data(object, method), _pInvoke(&Invoke<Class, RetType (Class::*)(Param1)>)
    {
    }
    /// Calls the const `method` on `object`.
    template <class Class>
    FastDelegate1(const Class* object, RetType (Class::*method)(Param1) const)
        : _data(object, method), _pInvoke(&Invoke<const Class, RetType (Class::*)(Param1) const>)
    {
    }

    /// Makes the delegate call `method` on `object` from now on.
    template <class Class>
    void Bind(Class* object, RetType (Class::*method)(Param1))
    {
        *this = FastDelegate1(object, method);
    }

    /// Calls the target; an empty delegate gives RetType().
    RetType operator()(Param1 argument) const
    {
        if (_pInvoke == nullptr)
            return RetType();
        return _pInvoke(_data, argument);
    }

    /// True when the delegate has no target.
    bool empty() const { return _pInvoke == nullptr; }
    /// Makes the delegate empty.
    void clear() { *this = FastDelegate1(); }

    /// \name Ordering
    /// @{

    /// Strict order by target, then member function: listener lists are
    /// ordered sets of delegates.
    bool operator<(const FastDelegate1& other) const { return _data < other._data; }
    bool operator==(const FastDelegate1& other) const { return _data == other._data; }
    bool operator!=(const FastDelegate1& other) const { return !(_data == other._data); }
    /// @}

private:
    template <class Class, class Method>
    static RetType Invoke(const detail::DelegateData& data, Param1 argument)
    {
        Class* object = static_cast<Class*>(data.Target());
        return (object->*data.FunctionAs<Method>())(argument);
    }

    detail::DelegateData _data;
    RetType (*_pInvoke)(const detail::DelegateData&, Param1) = nullptr;
};

/// \name Making delegates
/// @{

/// A delegate that calls `method` on `object`, with the types deduced.
template <class Class, class RetType>
FastDelegate0<RetType> MakeDelegate(Class* object, RetType (Class::*method)())
{
    return FastDelegate0<RetType>(object, method);
}
template <class Class, class RetType>
FastDelegate0<RetType> MakeDelegate(const Class* object, RetType (Class::*method)() const)
{
    return FastDelegate0<RetType>(object, method);
}
template <class Class, class Param1, class RetType>
FastDelegate1<Param1, RetType> MakeDelegate(Class* object, RetType (Class::*method)(Param1))
{
    return FastDelegate1<Param1, RetType>(object, method);
}
template <class Class, class Param1, class RetType>
FastDelegate1<Param1, RetType> MakeDelegate(const Class* object,
                                            RetType (Class::*method)(Param1) const)
{
    return FastDelegate1<Param1, RetType>(object, method);
}
/// @}

} // namespace fastdelegate

namespace Vireo
{

/// An ordered set of listeners: no duplicates, called in the delegates' order
/// rather than in the order of adding.
template <class Delegate>
class ListenerList
{
public:
    /// Both give whether the list changed; the wrappers' operations do not.
    bool Add(const Delegate& listener) { return _set.insert(listener).second; }
    /// Takes a listener out; false when it was not in the list.
    bool Remove(const Delegate& listener) { return _set.erase(listener) != 0; }
    /// Takes every listener out.
    void Clear() { _set.clear(); }
    /// True when the listener is in the list.
    bool Contains(const Delegate& listener) const { return _set.count(listener) != 0; }
    /// How many listeners the list holds.
    std::size_t Size() const { return _set.size(); }
    /// True when the list holds no listener.
    bool Empty() const { return _set.empty(); }

    /// Calls each listener in order until one gives false, which is then the
    /// result. The next listener is looked up only after the current call
    /// returned, so a listener may add or remove listeners, itself included:
    /// one that sorts after the current is called in this walk, one before it
    /// is not, and one removed before its turn is skipped.
    template <class... Args>
    bool Walk(Args... arguments)
    {
        auto next = _set.begin();
        while (next != _set.end())
        {
            /// A copy: the call may remove its own entry.
            const Delegate current = *next;
            if (!current(arguments...))
                return false;
            next = _set.upper_bound(current);
        }
        return true;
    }

private:
    std::set<Delegate> _set;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_FASTDELEGATE_H
