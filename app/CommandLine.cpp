#include "app/CommandLine.h"

#include <boost/program_options.hpp>
#include <exception>
#include <iostream>

namespace po = boost::program_options;

namespace boost {
// The options library reads unsigned numbers with a cast that wraps "-1" round
// to 65535, which would turn `-M -1` into an 18-hour wait. Only plain decimal
// digits are taken as an unsigned 16-bit value; anything else is the library's
// own invalid-value error. Found through boost::any, so it serves every
// value<unsigned short> option.
void validate(boost::any& v, const std::vector<std::string>& values, unsigned short*, int) {
  po::validators::check_first_occurrence(v);
  const std::string& text = po::validators::get_single_string(values);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
    throw po::invalid_option_value(text);
  try {
    v = boost::any(boost::lexical_cast<unsigned short>(text));
  } catch (const boost::bad_lexical_cast&) {
    throw po::invalid_option_value(text);
  }
}
}  // namespace boost

bool handleCommandLine(int argc, char** argv, bool& verbose, bool& mdnsOnly, bool& morlOnly,
                       bool& json, bool& all, unsigned short& mdnsWait, unsigned short& morlWait,
                       unsigned short& requestTimeout) {
  po::options_description description("Options");
  po::variables_map vm;
  try {
    // "version," has an empty short name on purpose: there is no one-letter form.
    description.add_options()("help,h", "Print help message")("version,", "Print version")(
        "json,j", po::bool_switch(&json)->default_value(false), "Print result in JSON")(
        "all,a", po::bool_switch(&all)->default_value(false), "Print all found addresses")(
        "mdns,m", po::bool_switch(&mdnsOnly)->default_value(false), "mDNS only")(
        "morl,t", po::bool_switch(&morlOnly)->default_value(false), "MORL only")(
        "verbose,v", po::bool_switch(&verbose)->default_value(false), "Print log messages")(
        "mdns-wait,M", po::value<unsigned short>(&mdnsWait)->default_value(5),
        "mDNS max silence time [seconds]")("morl-wait,T",
                                           po::value<unsigned short>(&morlWait)->default_value(5),
                                           "MORL response await time [seconds]")(
        "request-timeout,r", po::value<unsigned short>(&requestTimeout)->default_value(1000),
        "GET request timeout [milliseconds]");
    po::store(po::parse_command_line(argc, argv, description), vm);
    po::notify(vm);
  } catch (const std::exception& e) {
    // No line end after the message: the help text follows on standard output.
    std::cerr << "Exception: " << e.what();
    std::cout << description << "\n";
    return false;
  }
  if (vm.count("help")) {
    std::cout << description << "\n";
    return false;
  }
  if (vm.count("version")) {
    std::cout << "Varnock CLI, current version\n";
    return false;
  }
  return true;
}
