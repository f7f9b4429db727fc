#include "instance_table.h"

#include <utility>

namespace jx {
namespace ferrow {

InstancePtr InstanceTable::Put(InstancePtr instance) {
    const auto [position, added] = m_positions.try_emplace(instance->id, m_size);
    if (added) {
        if (m_size == m_blocks.size() * InstanceSnapshot::kBlockSize) m_blocks.push_back(std::make_shared<Block>());
        ++m_size;
    }
    InstancePtr previous = std::move(Slot(position->second));
    Slot(position->second) = std::move(instance);
    return previous;
}

InstancePtr InstanceTable::Remove(const ServiceId& id) {
    const auto position = m_positions.find(id);
    if (position == m_positions.end()) return nullptr;
    const std::size_t index = position->second;
    m_positions.erase(position);
    // The last entry fills the hole, so that the entries stay contiguous.
    const std::size_t last = --m_size;
    InstancePtr removed = std::move(Slot(index));
    if (index != last) {
        Slot(index) = std::move(Slot(last));
        m_positions[Slot(index)->id] = index;
    }
    Slot(last).reset();
    if (m_size % InstanceSnapshot::kBlockSize == 0) m_blocks.pop_back();
    return removed;
}

SnapshotPtr InstanceTable::Publish() {
    std::vector<std::shared_ptr<const InstanceSnapshot::Block>> blocks(m_blocks.begin(), m_blocks.end());
    return SnapshotPtr(new InstanceSnapshot(std::move(blocks), m_size, ++m_version));
}

InstancePtr& InstanceTable::Slot(std::size_t index) {
    std::shared_ptr<Block>& block = m_blocks[index / InstanceSnapshot::kBlockSize];
    // Only this table hands blocks out, so a count of one cannot grow meanwhile.
    if (block.use_count() > 1) block = std::make_shared<Block>(*block);
    return (*block)[index % InstanceSnapshot::kBlockSize];
}

}  // namespace ferrow
}  // namespace jx
