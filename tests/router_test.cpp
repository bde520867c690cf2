// A router without sinks, separate from the process's router.
#include "core/oxEventRouter.h"
#include "host_fixture.h"

namespace {

struct RouterTest : testing::Test {
  RouterTest() { event.severity = OXEVENT_SEVERITY_WARNING; }
  ~RouterTest() override { router.Stop(0); }

  oxEventRouter router;
  oxEventConfig config;
  oxEventNormalizedEvent event;
};

TEST_F(RouterTest, DoesNotStartAgainOnceClosed) {
  EXPECT_EQ(router.Start(&config), OXEVENT_OK);
  router.Close();
  EXPECT_EQ(router.Submit(event), OXEVENT_NOT_INITIALIZED);
  EXPECT_EQ(router.Start(&config), OXEVENT_NOT_INITIALIZED);
}

TEST_F(RouterTest, CountsWhatItFiltersAndWhatItEmits) {
  config.minimum_severity = OXEVENT_SEVERITY_WARNING;
  EXPECT_EQ(router.Start(&config), OXEVENT_OK);
  EXPECT_EQ(router.Submit(event), OXEVENT_OK);
  event.severity = OXEVENT_SEVERITY_INFO;
  EXPECT_EQ(router.Submit(event), OXEVENT_OK);
  EXPECT_EQ(router.Flush(0), OXEVENT_OK);
  config.enabled = false;
  EXPECT_EQ(router.ReloadConfig(&config), OXEVENT_OK);
  event.severity = OXEVENT_SEVERITY_ERROR;
  EXPECT_EQ(router.Submit(event), OXEVENT_OK);
  EXPECT_EQ(router.Stop(1000), OXEVENT_OK);
  const oxEventCounters counters = router.GetCounters();
  EXPECT_EQ(counters.submitted, 3u);
  EXPECT_EQ(counters.emitted, 1u);
  EXPECT_EQ(counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kFiltered)], 2u);
}

}  // namespace
