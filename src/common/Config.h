#ifndef KRO_CONFIG_H
#define KRO_CONFIG_H

#include <string>

#include <Poco/Util/JSONConfiguration.h>

#include "KroApi.h"

namespace kro
{

/// Keys of the settings that a host reads. A dot is a level of nested JSON objects in the file: "http.port"
/// is the member "port" of the object "http". The library reads none of them itself.
namespace http
{
extern KRO_API const std::string kPort;      ///< "http.port", a number, default 9528
extern KRO_API const std::string kSslPort;   ///< "http.sslport", a number, default 443
extern KRO_API const std::string kApiDebug;  ///< "http.apiDebug", a bool, default true
}  // namespace http

/// As above, for RPC.
namespace rpc
{
extern KRO_API const std::string kRpcPort;  ///< "rpc.port", a number, default 9527
}  // namespace rpc

/// The process's one configuration tree. It holds the `hook.*` defaults (WebHookBasic.h) before any call of a
/// host, static initialisers of the host included, and lives until the process ends.
/// POCO locks each single read and write of it; loadConfig() replaces the tree and belongs to the start of
/// the process.
/// @return never null; the caller owns no share of it.
KRO_API Poco::Util::JSONConfiguration* configInstance();

/// Each sets its defaults in the tree, over whatever the keys hold at that moment: call the ones that you
/// want first and loadConfig() after them. They touch no file.
KRO_API void initHttpOption();
KRO_API void initRpcOption();  ///< as above

/// The settings of a TLS server, below "openSSL.server". "${application.configDir}" and "${application.name}"
/// are stored as they stand; POCO expands them when a host reads such a key from a configuration that defines
/// them.
KRO_API void initSSLOption();

/// Reads the file of this service: JSON (RFC 8259), in the directory "tolvan" under Poco::Path::config(),
/// named after the executable, its case kept, with ".json". A missing directory is created. Without a file,
/// or with an empty one, writes the tree as it stands, for an operator to edit.
///
/// A file that loads replaces the whole tree: a default whose key is not in the file is gone. One that is no
/// JSON leaves tree and file as they are, and so does one whose root is no object (of the second POCO says
/// nothing). Never throws a std::exception: failures are logged at ERROR, with no result to tell of them. The
/// line is what() alone, which for POCO's failures is no more than the name of the kind, such as "Cannot open
/// file". For the start of the process, before other threads use the tree, and after loadLogging().
KRO_API void loadConfig();

/// Writes the whole tree to the path that loadConfig() has fixed. Failures are logged at ERROR and not passed
/// on; the file may then be left empty, since it is cut before it is written. A full disk is such a case and
/// is not even logged: POCO's streams swallow it. With kWholeFiles the file is the old one or the new one,
/// whole, and a full disk is logged. Before loadConfig() there is no path, and nothing is written.
KRO_API void saveConfig();

}  // namespace kro

#endif
