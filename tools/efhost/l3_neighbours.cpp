// Neighbour entries, their lifetimes, and the per-next-hop waiting queues.
#include "l3_neighbours.h"

namespace efhost::l3 {

void NeighbourTable::add_static(const NeighbourKey &key, const Mac &mac)
{
    entries_[key] = Entry{mac, true, 0};
}

std::optional<Mac> NeighbourTable::find(const NeighbourKey &key, uint64_t now) const
{
    const auto it = entries_.find(key);
    if (it == entries_.end() || (!it->second.is_static && now >= it->second.expires))
        return std::nullopt;
    return it->second.mac;
}

std::vector<Packet> NeighbourTable::learn(const NeighbourKey &key, const Mac &mac, uint64_t now,
                                          bool create)
{
    const auto pending = pending_.find(key);
    const auto it = entries_.find(key);
    if (it != entries_.end() && it->second.is_static)
        return {};
    if (it != entries_.end() || pending != pending_.end())
        entries_[key] = Entry{mac, false, now + kNeighbourLifetimeMs};
    else if (create && entries_.size() < kMaxNeighbours)
        entries_.emplace(key, Entry{mac, false, now + kNeighbourLifetimeMs});
    else if (create)
        refused_++;
    if (pending == pending_.end())
        return {};
    std::vector<Packet> out(std::make_move_iterator(pending->second.packets.begin()),
                            std::make_move_iterator(pending->second.packets.end()));
    waiting_ -= out.size();
    pending_.erase(pending);
    return out;
}

NeighbourTable::Wait NeighbourTable::wait(const NeighbourKey &key, Packet packet, uint64_t now)
{
    if (pending_.size() >= kMaxResolving && pending_.find(key) == pending_.end())
        return Wait::Full;
    auto [it, fresh] = pending_.try_emplace(key);
    Pending &p = it->second;
    if (p.packets.size() >= kMaxWaitingPerHop)
        return Wait::Full;
    if (fresh) {
        p.started = now;
        p.asked = now;
    }
    p.packets.push_back(std::move(packet));
    waiting_++;
    return fresh ? Wait::Asking : Wait::Queued;
}

NeighbourTable::Due NeighbourTable::expire(uint64_t now)
{
    Due due;
    for (auto it = pending_.begin(); it != pending_.end();) {
        Pending &p = it->second;
        if (now - p.started >= kResolveGiveUpMs) {
            due.dropped += p.packets.size();
            waiting_ -= p.packets.size();
            it = pending_.erase(it);
            continue;
        }
        if (now - p.asked >= kResolveRetryMs) {
            p.asked = now;
            due.ask_again.push_back(it->first);
        }
        ++it;
    }
    // Learnt entries past their lifetime are useless; keep the map small.
    std::erase_if(entries_, [now](const auto &e) {
        return !e.second.is_static && now >= e.second.expires;
    });
    return due;
}

}  // namespace efhost::l3
