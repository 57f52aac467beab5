// The configuration schema's paths (its walks' readings: tests/ports_unit, TcpEntries).
#include <string>

#include "tests/lib/testing.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/error.h"

namespace {

TEST(Schema, PathsAsTheRegistryLoaderStoresThem) {
  char path[SCHEMA_PATH_SIZE];
  EXPECT_EQ(0, kivschema_path(path, schema_values[SCHEMA_SERVICE_PROGRAM], "a.b.c"));
  EXPECT_STREQ(".services.a_b_c.program", path);
  EXPECT_EQ(0, kivschema_path(path, schema_values[SCHEMA_PORT_SERVICE], 25L));
  EXPECT_STREQ(".tcp.s25.service", path);
  // The longest name of a section fits every one of its paths, one more does not.
  std::string fits(kivschema_name_max(SCHEMA_SERVICES), 'a');
  EXPECT_EQ(233u, fits.size());
  EXPECT_EQ(0, kivschema_path(path, schema_values[SCHEMA_SERVICE_DESCRIPTION], fits.c_str()));
  EXPECT_EQ(KIV_EOVERFLOW,
            kivschema_path(path, schema_values[SCHEMA_SERVICE_DESCRIPTION], (fits + "a").c_str()));
  EXPECT_EQ(233u, kivschema_name_max(SCHEMA_PROGRAMS));
  // A default is a text its own row takes.
  for (const schema_value &v : schema_values)
    EXPECT_GE(v.fallback ? kivschema_judge(v, v.fallback) : 0, 0) << v.name;
}

}  // namespace
