#pragma once

// AppError lives with the platform functions, which throw it too.
#include "platform/apperror.h"
