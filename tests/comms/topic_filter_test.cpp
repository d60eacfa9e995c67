#include "comms/topic_filter.h"

#include <gtest/gtest.h>

namespace varnel::comms {
namespace {

TEST(TopicFilter, MatchesAsMqttSays) {
  const struct {
    const char* filter;
    const char* topic;
    bool matches;
  } cases[] = {
      {"a/b", "a/b/", false},
      {"a/+", "a/", true},
      {"a/+", "a", false},
      {"a/+", "a/b/c", false},
      {"+", "/a", false},
      {"+/+", "/a", true},
      {"a/#", "a", true},
      {"#", "a/b", true},
      {"#", "$SYS/x", false},
      {"+/x", "$SYS/x", false},
      {"$SYS/#", "$SYS/x", true},
      {"a/#/b", "a/x/b", false},
      {"mqtt_agent/request/+", "mqtt_agent/request/ui", true},
      {"", "a", false},
      {"a/+/b", "a//b", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(TopicMatches(c.filter, c.topic), c.matches) << c.filter << " " << c.topic;
}

}  // namespace
}  // namespace varnel::comms
