// Delegates and listener lists: binding, calling, ordering, and walks that
// change the list they walk. No runtime needed.
#include "KestrelWrapper/FastDelegate.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using fastdelegate::FastDelegate0;
using fastdelegate::FastDelegate1;
using fastdelegate::MakeDelegate;
using Vireo::ListenerList;

namespace
{

using Journal = std::vector<std::string>;

// Writes each call into a journal shared by all listeners of a test.
struct Listener
{
    std::string sName;
    Journal* pJournal = nullptr;
    bool bAnswer = true;
    std::function<void()> onCall; // runs inside the call, before answering

    bool First() { return _Note(""); } // the name alone: the walks' journals read easier
    bool Second() { return _Note(".Second"); }
    bool Take(int value) { return _Note("(" + std::to_string(value) + ")"); }
    bool Peek() const
    {
        pJournal->push_back(sName + ".Peek");
        return bAnswer;
    }

private:
    bool _Note(const std::string& what)
    {
        pJournal->push_back(sName + what);
        if (onCall)
            onCall();
        return bAnswer;
    }
};

// Listeners in one array: ascending addresses, whatever the test adds first.
struct Trio
{
    Journal journal;
    Listener at[3];
    Trio()
    {
        for (int i = 0; i < 3; ++i)
            at[i] = Listener{"L" + std::to_string(i), &journal, true, {}};
    }
    FastDelegate0<bool> Of(int i) { return MakeDelegate(&at[i], &Listener::First); }
};

} // namespace

// The listener tests call members through delegates all along; here a const
// member, a copy, an empty delegate, and equality.
TEST(DelegateTest, CallsTheBoundMemberAndGivesItsAnswer)
{
    Trio trio;
    trio.at[1].bAnswer = false;
    const Listener& constant = trio.at[1];
    const FastDelegate0<bool> copy = MakeDelegate(&constant, &Listener::Peek);
    EXPECT_FALSE(copy());
    EXPECT_EQ(trio.journal, Journal{"L1.Peek"});

    FastDelegate0<bool> empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_FALSE(empty()) << "an empty delegate answers false";

    // Equal only with the same target and the same member.
    EXPECT_TRUE(trio.Of(1) == trio.Of(1));
    EXPECT_FALSE(trio.Of(0) == trio.Of(1));
    EXPECT_TRUE(trio.Of(0) != trio.Of(1));
    EXPECT_FALSE(trio.Of(1) == MakeDelegate(&trio.at[1], &Listener::Second));
}

// Added out of order and twice: one entry each, called by address, and a
// false answer hides the walk from every listener after it. This is what the
// delegates' order is for.
TEST(ListenerListTest, WalksInTargetOrderOnceEachAndStopsAtFalse)
{
    Trio trio;
    ListenerList<FastDelegate1<int, bool>> list;
    EXPECT_TRUE(list.Walk(1)) << "an empty walk goes through";
    for (int i : {2, 0, 1, 0})
        list.Add(MakeDelegate(&trio.at[i], &Listener::Take));
    EXPECT_EQ(list.Size(), 3u);
    EXPECT_TRUE(list.Walk(5));
    trio.at[1].bAnswer = false;
    EXPECT_FALSE(list.Walk(6));
    EXPECT_EQ(trio.journal, (Journal{"L0(5)", "L1(5)", "L2(5)", "L0(6)", "L1(6)"}));

    EXPECT_TRUE(list.Remove(MakeDelegate(&trio.at[0], &Listener::Take)));
    EXPECT_FALSE(list.Remove(MakeDelegate(&trio.at[0], &Listener::Take)));
    ListenerList<FastDelegate0<bool>> members;
    members.Add(trio.Of(1));
    EXPECT_TRUE(members.Add(MakeDelegate(&trio.at[1], &Listener::Second)))
        << "another member function of one object is another listener";
    EXPECT_EQ(members.Size(), 2u);
}

TEST(ListenerListTest, ListenersMayChangeTheListTheyAreCalledFrom)
{
    struct Case
    {
        const char* what;
        std::vector<int> initial; // listeners on the list before the walk
        int actor;                // the listener that changes the list
        bool adds;                // adds `other`, or removes it
        int other;
        Journal expected;
        std::size_t sizeAfter;
    };
    const Case cases[] = {
        {"one added after the actor is called", {0, 1}, 1, true, 2, {"L0", "L1", "L2"}, 3},
        {"one added before the actor is not", {1, 2}, 1, true, 0, {"L1", "L2"}, 3},
        {"one removed before its turn is skipped", {0, 1, 2}, 0, false, 1, {"L0", "L2"}, 2},
        {"an actor that removes itself goes on", {0, 1, 2}, 1, false, 1, {"L0", "L1", "L2"}, 2},
        {"the last removing itself ends the walk", {0, 2}, 2, false, 2, {"L0", "L2"}, 1},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.what);
        Trio trio;
        ListenerList<FastDelegate0<bool>> list;
        for (int i : c.initial)
            list.Add(trio.Of(i));
        const FastDelegate0<bool> other = trio.Of(c.other);
        trio.at[c.actor].onCall = [&list, &c, other]
        { c.adds ? list.Add(other) : list.Remove(other); };

        EXPECT_TRUE(list.Walk());
        EXPECT_EQ(trio.journal, c.expected);
        EXPECT_EQ(list.Size(), c.sizeAfter);
    }
}
