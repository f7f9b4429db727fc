#pragma once

// Log records: a level gate, named sources and a per-thread record builder.
// Every finished record goes to the back end through ForceLockHandlers and
// LogMessage; the back end (logger/log_handler.h, source/log_backend.cpp)
// turns records into lines and lets an application route them elsewhere.

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>

#include <boost/io/ios_state.hpp>

#include "utility/string.h"

namespace jx {
namespace logging {

enum LogLevel : std::uint32_t {
    JXLOG_DEBUG = 0,
    JXLOG_INFO = 10,
    JXLOG_INFO_LOCAL = 14,
    JXLOG_INFO_SEARCH = 17,
    JXLOG_WARNING = 20,
    JXLOG_ERROR = 30,
    JXLOG_CRITICAL = 40,
    JXLOG_WALL = 100,
};

// How the back end is to read a record's message text.
enum DecodeType : std::uint32_t {
    JXLOG_DECODE_AS_NONE = 0,
    JXLOG_DECODE_AS_KV = 1,
    JXLOG_DECODE_AS_JSON = 2,
    JXLOG_DECODE_AS_MIXED = 3,
    JXLOG_DECODE_AS_PB = 4,
};

using InPlaceRefString = String;
using InPlaceRefStringStream = StringStream;
using IPString = InPlaceRefString;
using IPStringStream = InPlaceRefStringStream;

class Source;
using SourcePtr = std::shared_ptr<Source>;
using ConstSourcePtr = std::shared_ptr<const Source>;

// A named log source, optionally under a parent. Immutable once built, so one
// source may be shared by records on every thread.
class Source {
public:
    explicit Source(const char* name);
    explicit Source(IPString name);
    Source(const char* name, ConstSourcePtr parent);
    Source(IPString name, ConstSourcePtr parent);

    const IPString& Name() const { return m_name; }
    const ConstSourcePtr& Parent() const { return m_parent; }

    // The chain from the root down to this source, each link a new Source
    // whose parent is the next one down: the reverse of the Parent() chain.
    const ConstSourcePtr Reverse() const;

private:
    IPString m_name;
    ConstSourcePtr m_parent;
};

// A source made in one allocation for the object and its reference counts.
template <typename... Args>
SourcePtr MakeSource(Args&&... args) {
    return std::make_shared<Source>(std::forward<Args>(args)...);
}

// Process-wide minimum level; records below it are never built.
extern std::atomic<LogLevel> g_minLogLevel;
extern bool g_toggleableDebugControl;
extern const std::uint32_t g_defaultConfigFlags;

LogLevel GetMinimumLoggingLevel();

// Back-end entry points. Safe from any thread at any time, including static
// initialisation and destruction.
void ForceLockHandlers();
void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                const ConstSourcePtr& source, const char* filename,
                int lineNumber, const String& message,
                const String& handlerName);

// The calling thread's record stream, created on first use and destroyed at
// thread exit. Records on one thread reuse it; it is empty between records.
IPStringStream& GetThreadLocalStream();

// One record under construction; lives for one log statement and emits the
// record from its destructor. Never shared between threads.
class Logger {
public:
    Logger(LogLevel level, unsigned int id, DecodeType decodeType,
           const ConstSourcePtr& source, const char* filename, int lineNumber,
           const String& handlerName);
    virtual ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    std::ostream& Stream() { return m_stream; }

private:
    LogLevel m_level;
    std::uint32_t m_id;
    DecodeType m_decodeType;
    const char* m_filename;
    std::int32_t m_lineNumber;
    ConstSourcePtr m_source;
    IPStringStream& m_stream;
    boost::io::ios_base_all_saver m_saver;
    const String m_handlerName;
};

// Lets the gated statement be one conditional expression with two void arms.
class VoidifyStream {
public:
    void operator&(std::ostream&) const {}
};

}  // namespace logging
}  // namespace jx

// JXLOG(level, source) << ...: builds and emits a record only when the
// minimum level admits `level`; otherwise nothing streamed is evaluated.
#define JXLOG(level, source)                                                  \
    (::jx::logging::g_minLogLevel.load() > (level))                           \
        ? (void)0                                                             \
        : ::jx::logging::VoidifyStream() &                                    \
              ::jx::logging::Logger((level), 0,                               \
                                    ::jx::logging::JXLOG_DECODE_AS_KV,        \
                                    (source), __FILE__, __LINE__, "")         \
                  .Stream()
