#include "ferrow/error.h"

#include <stdexcept>

#include <gtest/gtest.h>
#include <zookeeper/zookeeper.h>

namespace jx {
namespace ferrow {
namespace {

TEST(ZooErrorTest, CopyCarriesTheCodeAndTheClientTextAsALibraryError) {
    const ZooError original(ZNONODE);
    const ZooError copy = original;
    const details::ExceptionWrapper<FerrowErrorTag, std::runtime_error>& asLibraryError = copy;
    EXPECT_EQ(copy.Code(), ZNONODE);
    EXPECT_STREQ(asLibraryError.what(), zerror(ZNONODE));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
