#include "helper/helper_settings.h"

LDHelperSettings LDHelperSettingsOfThisBuild() { return {}; }
