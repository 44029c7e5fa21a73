#include "Core/intent_files.h"
