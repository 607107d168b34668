#include "format/pe/pe_image.h"
