#pragma once

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace jx {
namespace ferrow {

// Marks exceptions as this library's own: catch
// details::ExceptionWrapper<FerrowErrorTag, std::runtime_error> to catch them all.
struct FerrowErrorTag {};

namespace details {

template <typename Tag, typename Base>
class ExceptionWrapper : public Base {
public:
    template <typename Arg>
    explicit ExceptionWrapper(Arg&& message) : Base(std::forward<Arg>(message)) {}
    ExceptionWrapper(const ExceptionWrapper&) = default;
    ExceptionWrapper(ExceptionWrapper&&) = default;
    virtual ~ExceptionWrapper() = default;
};

}  // namespace details

// A ZooKeeper failure: Code() is the client's result code (ZNONODE, ...) and
// what() is the client's own text for it (zerror).
class ZooError : public details::ExceptionWrapper<FerrowErrorTag, std::runtime_error> {
public:
    explicit ZooError(int code);
    ZooError(const ZooError&) = default;
    ZooError(ZooError&&) = default;
    virtual ~ZooError() = default;

    int Code() const { return m_code; }

private:
    std::int32_t m_code;
};

}  // namespace ferrow
}  // namespace jx
