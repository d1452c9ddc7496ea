// The names our two XML documents share: the settings file ("settings.als") and the multipart
// archive file. Both have the root "config" declaring the prefix "xpt" for a namespace of their own,
// and both name a value's type in a "type" attribute.
#pragma once

namespace NSArchive::NSXml {

constexpr char kszRootName[] = "config";
constexpr char kszNamespaceAttribute[] = "xmlns:xpt";
constexpr char kszTypeAttribute[] = "type";
constexpr char kszTypeULong[] = "ULONG";  // a 32-bit unsigned value

}  // namespace NSArchive::NSXml
