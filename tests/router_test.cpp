// A router without sinks, separate from the process's router.
#include "core/oxEventRouter.h"
#include "host_fixture.h"

namespace {

TEST(RouterTest, DoesNotStartAgainOnceClosed) {
  oxEventRouter router;
  const oxEventConfig config;
  EXPECT_EQ(router.Start(&config), OXEVENT_OK);
  router.Close();
  EXPECT_EQ(router.Submit({}), OXEVENT_NOT_INITIALIZED);
  EXPECT_EQ(router.Start(&config), OXEVENT_NOT_INITIALIZED);
}

}  // namespace
