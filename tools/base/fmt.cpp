// {fmt}, compiled once. In every file it would take more than half of the time to compile that
// file; its shared library would be one more to install with devaccess, and to load.

#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail
{

// What its headers declare and leave to its library.
template auto dragonbox::to_decimal(float) noexcept -> dragonbox::decimal_fp<float>;
template auto dragonbox::to_decimal(double) noexcept -> dragonbox::decimal_fp<double>;
template locale_ref::locale_ref(const std::locale &);
template auto locale_ref::get<std::locale>() const -> std::locale;
template auto thousands_sep_impl(locale_ref) -> thousands_sep_result<char>;
template auto decimal_point_impl(locale_ref) -> char;
template void buffer<char>::append(const char *, const char *);
template void vformat_to(buffer<char> &, string_view, basic_format_args<format_context>,
                         locale_ref);

} // namespace detail
FMT_END_NAMESPACE
