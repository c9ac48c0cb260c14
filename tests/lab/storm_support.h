// What the handle thread may make of one device's events, for every way
// the events can be cut into walks.
//
// The rules (udev_handle.cpp, udev_event.cpp). On each wake-up the handle
// thread takes everything queued in one step and walks it (a "walk").
// Which events share a walk depends on timing, so a test cannot know it in
// general. Within one walk, with every driver request accepted (no
// retries), each event in list order is dropped if another node still on
// the working list carries its device number and an add or remove
// ("supersession"), else sent to the driver; either way it is freed. The
// device's earlier nodes of the walk are gone by then, so for one device
// and one walk:
//
//   an event is dropped  <=>  an add or remove of its device comes later
//                             in the same walk.
//
// So a walk sends the device's last add/remove and the changes behind it;
// every earlier event of the device in that walk is dropped.
//
// The accepted language, per device. Cut the emitted sequence before every
// add/remove into runs: an optional run of leading changes, then runs that
// each start with one add/remove followed by changes only. Then
//
//   observed = P(run_1) P(run_2) ... P(run_{k-1}) run_k
//
// where P(run) is a prefix of that run, and the last run is complete. An
// event e of run i < k is sent iff a walk ends somewhere from e up to just
// before run i+1 starts (e's next superseder); with c the last walk end
// inside run i, exactly the events of run i up to c are sent: a prefix
// (empty when no walk ends inside the run). The ranges of different runs
// are disjoint, so each run picks its prefix independently. The last run
// has no superseder behind it and is always sent whole. Hence the last
// add/remove emitted is the last add/remove request, nothing is invented,
// duplicated or reordered, and an event goes missing only with an
// add/remove of its device behind it in its walk.
//
// Known walks narrow the language: when events i and i+1 are known to be in
// the same walk (`Joined`), no walk ends after event i, so a prefix may
// not stop there. Without such knowledge a daemon that never supersedes
// would pass (every event in a walk of its own); the storm holds some
// batches together to know them.
//
// Walks are cut from one sequence of events shared by all devices; per
// device that is some cut of its own events, which is all the language
// asks. Across devices the storm checks order only: walks send in list
// order one after another, so all requests together are a subsequence of
// all events.
//
// The StormChecker tests compare the language with a literal simulation of
// the walks over every cut of every short sequence.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>


namespace qmlab::storm {

// One device's events or requests: 'A' add, 'R' remove, 'C' change.
using Actions = std::string;
// What is known of the walks: joined[i] says that events i and i+1 of the
// device were certainly taken in the same walk (no walk ends between them).
// Empty: nothing is known.
using Joined = std::vector<bool>;

inline bool IsSuperseder(char action)
{
    return action != 'C';
}

inline bool MayEndWalkAfter(const Joined &joined, size_t i)
{
    return i >= joined.size() || !joined[i];
}

// The runs of an emitted sequence, as [begin, end) index ranges: split
// before every add/remove.
inline std::vector<std::pair<size_t, size_t>> Runs(const Actions &emitted)
{
    std::vector<std::pair<size_t, size_t>> runs;
    for (size_t i = 0; i < emitted.size(); ++i) {
        if (runs.empty() || IsSuperseder(emitted[i])) {
            runs.emplace_back(i, i);
        }
        runs.back().second = i + 1;
    }
    return runs;
}

// The lengths of the prefixes of a run that is not the last: 0 (no walk
// ends inside the run), and l wherever a walk may end after its l-th event.
inline std::vector<size_t> PrefixLengths(std::pair<size_t, size_t> run, const Joined &joined)
{
    std::vector<size_t> lengths = {0};
    for (size_t l = 1; l <= run.second - run.first; ++l) {
        if (MayEndWalkAfter(joined, run.first + l - 1)) {
            lengths.push_back(l);
        }
    }
    return lengths;
}

// Whether `observed` is in the accepted language of `emitted` (above).
inline bool Accepted(const Actions &emitted, const Actions &observed, const Joined &joined = {})
{
    auto runs = Runs(emitted);
    if (runs.empty()) {
        return observed.empty();
    }
    // reach[j]: the runs so far can produce observed[0, j).
    std::vector<bool> reach(observed.size() + 1, false);
    reach[0] = true;
    for (size_t r = 0; r + 1 < runs.size(); ++r) {
        std::vector<bool> next(observed.size() + 1, false);
        std::vector<size_t> lengths = PrefixLengths(runs[r], joined);
        for (size_t j = 0; j <= observed.size(); ++j) {
            if (!reach[j]) {
                continue;
            }
            for (size_t l : lengths) {
                if (j + l <= observed.size() && observed.compare(j, l, emitted, runs[r].first, l) == 0) {
                    next[j + l] = true;
                }
            }
        }
        reach.swap(next);
    }
    size_t lastLen = runs.back().second - runs.back().first;
    if (observed.size() < lastLen) {
        return false;
    }
    size_t j = observed.size() - lastLen;
    return reach[j] && observed.compare(j, lastLen, emitted, runs.back().first, lastLen) == 0;
}

// Every word of the accepted language (for short sequences only).
inline std::set<Actions> Language(const Actions &emitted, const Joined &joined = {})
{
    auto runs = Runs(emitted);
    std::set<Actions> words = {""};
    for (size_t r = 0; r < runs.size(); ++r) {
        std::set<Actions> next;
        Actions run = emitted.substr(runs[r].first, runs[r].second - runs[r].first);
        for (const auto &w : words) {
            if (r + 1 == runs.size()) {
                next.insert(w + run);
                continue;
            }
            for (size_t l : PrefixLengths(runs[r], joined)) {
                next.insert(w + run.substr(0, l));
            }
        }
        words.swap(next);
    }
    return words;
}

// What the handle thread sends for every way of cutting `emitted` into
// consecutive walks (that `joined` allows), by a literal simulation of its
// walk: each node in list order is dropped while another node still on the
// list is an add/remove (of the same device: there is only one here), else
// sent; either way it is freed.
inline std::set<Actions> OutcomesOfAllWalks(const Actions &emitted, const Joined &joined = {})
{
    std::set<Actions> outcomes;
    size_t n = emitted.size();
    if (n == 0) {
        return {""};
    }
    for (uint64_t cuts = 0; cuts < (uint64_t{1} << (n - 1)); ++cuts) {
        bool allowed = true;
        for (size_t i = 0; i + 1 < n; ++i) {
            if (((cuts >> i) & 1u) != 0 && !MayEndWalkAfter(joined, i)) {
                allowed = false;
            }
        }
        if (!allowed) {
            continue;
        }
        Actions sent;
        size_t begin = 0;
        for (size_t end = 1; end <= n; ++end) {
            bool walkEnds = end == n || ((cuts >> (end - 1)) & 1u) != 0;
            if (!walkEnds) {
                continue;
            }
            std::vector<bool> onList(end - begin, true);
            for (size_t i = begin; i < end; ++i) {
                bool superseded = false;
                for (size_t j = begin; j < end; ++j) {
                    if (j != i && onList[j - begin] && IsSuperseder(emitted[j])) {
                        superseded = true;
                        break;
                    }
                }
                if (!superseded) {
                    sent.push_back(emitted[i]);
                }
                onList[i - begin] = false;
            }
            begin = end;
        }
        outcomes.insert(sent);
    }
    return outcomes;
}

// Whether `observed` (device, action) is a subsequence of `emitted`: every
// walk sends in list order, one walk after another, so across devices too
// the requests keep the order of the events.
template <class T>
bool IsSubsequence(const std::vector<T> &emitted, const std::vector<T> &observed)
{
    size_t i = 0;
    for (const auto &o : observed) {
        while (i < emitted.size() && !(emitted[i] == o)) {
            ++i;
        }
        if (i == emitted.size()) {
            return false;
        }
        ++i;
    }
    return true;
}

}  // namespace qmlab::storm
