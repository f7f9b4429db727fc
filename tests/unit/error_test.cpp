#include "ferrow/error.h"

#include <stdexcept>

#include <gtest/gtest.h>
#include <zookeeper/zookeeper.h>

namespace jx {
namespace ferrow {
namespace {

TEST(ZooErrorTest, CarriesTheCodeAndTheClientTextAndIsCaughtAsALibraryError) {
    try {
        throw ZooError(ZNONODE);
    } catch (const details::ExceptionWrapper<FerrowErrorTag, std::runtime_error>& caught) {
        const ZooError* error = dynamic_cast<const ZooError*>(&caught);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->Code(), -101);
        EXPECT_STREQ(caught.what(), zerror(ZNONODE));

        const ZooError copy = *error;
        EXPECT_EQ(copy.Code(), -101);
        EXPECT_STREQ(copy.what(), zerror(ZNONODE));
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
