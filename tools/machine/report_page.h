// The page of 'devaccess report'.
#pragma once

namespace devaccess
{

// A template of Mustache; report.html.mustache is built in.
extern const char report_page[];

} // namespace devaccess
