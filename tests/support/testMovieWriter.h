// Older name of the whole-movie builder, kept until its last user includes movieBuilder.h.
#pragma once

#include "tests/support/movieBuilder.h"

using zylTestMovieOptions = movieBuilder::MovieOptions;
namespace zylTestMovie = movieBuilder;
