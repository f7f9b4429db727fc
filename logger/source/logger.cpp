#include "logger/logger.h"

#include <vector>

namespace jx {
namespace logging {

Source::Source(const char* name) : m_name(name) {}
Source::Source(IPString name) : m_name(std::move(name)) {}
Source::Source(const char* name, ConstSourcePtr parent) : m_name(name), m_parent(std::move(parent)) {}
Source::Source(IPString name, ConstSourcePtr parent) : m_name(std::move(name)), m_parent(std::move(parent)) {}

const ConstSourcePtr Source::Reverse() const {
    std::vector<const Source*> chain;
    for (const Source* s = this; s != nullptr; s = s->m_parent.get()) chain.push_back(s);
    // chain runs leaf..root; the reversed chain has the root as its leaf.
    ConstSourcePtr reversed;
    for (const Source* s : chain) reversed = MakeSource(s->m_name, reversed);
    return reversed;
}

IPStringStream& GetThreadLocalStream() {
    thread_local IPStringStream stream;
    return stream;
}

Logger::Logger(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
               const char* filename, int lineNumber, const String& handlerName)
    : m_level(level),
      m_id(id),
      m_decodeType(decodeType),
      m_filename(filename),
      m_lineNumber(lineNumber),
      m_source(source),
      m_stream(GetThreadLocalStream()),
      m_saver(m_stream),
      m_handlerName(handlerName) {}

// Emits exactly one record; exceptions while emitting end the process
// (destructors are noexcept), so a record is never half-written silently.
Logger::~Logger() {
    ForceLockHandlers();
    const String text = m_stream.str();
    LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, text, m_handlerName);
    m_stream.str(String());
}

}  // namespace logging
}  // namespace jx
