#include "programs/common/MetricsText.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/programs/server/PrometheusText.h"

namespace tavix::test {

TEST(MetricsText, EscapesLabelsAndWritesNumbersThatReadBack) {
  programs::MetricsText text;
  text.BeginCounter("odd_total", "What it is.");
  text.Add(1ull, {{"a", "quote \" backslash \\ line\nend"}, {"b", ""}});
  text.BeginGauge("number", "Another.");
  text.Add(0.1 + 0.2);
  EXPECT_EQ(text.GetText(),
            "# HELP tavix_settings_odd_total What it is.\n# TYPE tavix_settings_odd_total counter\n"
            "tavix_settings_odd_total{a=\"quote \\\" backslash \\\\ line\\nend\",b=\"\"} 1\n"
            "# HELP tavix_settings_number Another.\n# TYPE tavix_settings_number gauge\n"
            "tavix_settings_number 0.30000000000000004\n");
  EXPECT_EQ(PrometheusText(text.GetText()).Get("number"), 0.1 + 0.2);
}

TEST(PrometheusText, TakesNoTextThatIsNone) {
  for (const char* text : {"", "x 1", "x 1\n", "# TYPE x counter\nx 1\n", "# HELP x y\n# TYPE x counter\nx one\n",
                           "# HELP x y\n# TYPE x counter\nx 1\nx 1\n", "# HELP x y\n# TYPE x counter\nx{a=b} 1\n",
                           "# HELP x y\n# TYPE x counter\nz 1\n"})
    EXPECT_THROW(PrometheusText{text}, std::runtime_error) << text;
}

}  // namespace tavix::test
