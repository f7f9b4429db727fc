#include "cache/instance_table.h"

#include <functional>
#include <utility>

#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {

InstancePtr InstanceTable::Put(InstancePtr instance) {
    Reserve();
    const std::size_t at = Locate(instance->Id());
    if (m_index[at] == 0) {
        if (m_size == m_blocks.size() * InstanceSnapshot::kBlockSize) m_blocks.push_back(std::make_shared<Block>());
        m_index[at] = static_cast<std::uint32_t>(++m_size);
    }
    InstancePtr& slot = Slot(m_index[at] - 1);
    InstancePtr previous = std::move(slot);
    slot = std::move(instance);
    return previous;
}

InstancePtr InstanceTable::Get(const ServiceId& id) const {
    if (m_size == 0) return nullptr;
    const std::size_t at = Locate(id);
    return m_index[at] == 0 ? nullptr : At(m_index[at] - 1);
}

InstancePtr InstanceTable::Remove(const ServiceId& id) {
    if (m_size == 0) return nullptr;
    const std::size_t at = Locate(id);
    if (m_index[at] == 0) return nullptr;
    const std::size_t index = m_index[at] - 1;
    Unindex(at);
    // The last entry fills the hole, so that the entries stay contiguous.
    const std::size_t last = --m_size;
    InstancePtr removed = std::move(Slot(index));
    if (index != last) {
        // Found while the last entry is still where the index says.
        const std::size_t moved = Locate(At(last)->Id());
        Slot(index) = std::move(Slot(last));
        m_index[moved] = static_cast<std::uint32_t>(index + 1);
    }
    Slot(last).reset();
    if (m_size % InstanceSnapshot::kBlockSize == 0) m_blocks.pop_back();
    return removed;
}

SnapshotPtr InstanceTable::Publish() {
    std::vector<std::shared_ptr<const InstanceSnapshot::Block>> blocks(m_blocks.begin(), m_blocks.end());
    return std::shared_ptr<const InstanceSnapshot>(new InstanceSnapshot(std::move(blocks), m_size, ++m_version));
}

InstancePtr& InstanceTable::Slot(std::size_t index) {
    std::shared_ptr<Block>& block = m_blocks[index / InstanceSnapshot::kBlockSize];
    // Only this table hands blocks out, so a count of one cannot grow meanwhile.
    if (block.use_count() > 1) block = std::make_shared<Block>(*block);
    return (*block)[index % InstanceSnapshot::kBlockSize];
}

const InstancePtr& InstanceTable::At(std::size_t index) const {
    return (*m_blocks[index / InstanceSnapshot::kBlockSize])[index % InstanceSnapshot::kBlockSize];
}

std::size_t InstanceTable::Locate(const ServiceId& id) const {
    const std::size_t mask = m_index.size() - 1;
    std::size_t at = std::hash<ServiceId>{}(id) & mask;
    // Never endless: the index is at most half full.
    while (m_index[at] != 0 && At(m_index[at] - 1)->Id() != id) at = (at + 1) & mask;
    return at;
}

void InstanceTable::Unindex(std::size_t at) {
    const std::size_t mask = m_index.size() - 1;
    std::size_t hole = at;
    for (std::size_t next = (hole + 1) & mask; m_index[next] != 0; next = (next + 1) & mask) {
        // The entry at `next` may fill the hole when the hole lies on its
        // probe path: at or after its home, before `next`.
        const std::size_t home = std::hash<ServiceId>{}(At(m_index[next] - 1)->Id()) & mask;
        if (((next - home) & mask) >= ((next - hole) & mask)) {
            m_index[hole] = m_index[next];
            hole = next;
        }
    }
    m_index[hole] = 0;
}

void InstanceTable::Reserve() {
    if (2 * (m_size + 1) <= m_index.size()) return;
    m_index.assign(m_index.empty() ? 16 : 2 * m_index.size(), 0);
    for (std::size_t index = 0; index < m_size; ++index) {
        m_index[Locate(At(index)->Id())] = static_cast<std::uint32_t>(index + 1);
    }
}

}  // namespace ferrow
}  // namespace jx
