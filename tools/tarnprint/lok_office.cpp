#include "lok_office.h"

#include <LibreOfficeKit/LibreOfficeKitInit.h>
#include <sys/stat.h>
#include <unistd.h>
#include <LibreOfficeKit/LibreOfficeKit.hxx>

#include <fstream>
#include <memory>

#include "office_paths.h"
#include "office_profile.h"
#include "platform/ascii_text.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

// Basic macros of the private profile. LibreOfficeKit can't open CSV files: it always asks for
// the import options, even when they are given, so CsvToPdf loads them through the API with the
// options set. ToPdf loads a document hidden, as soffice --convert-to does: a document loaded
// through LibreOfficeKit gets a view, whose set-up and upkeep make a conversion take about half
// as long again. A file of a kind that opens as a web page is laid out as a text document, as
// LibreOfficeKit does it. The converted document stays open until CloseLast: its teardown can
// take as long as its export, and nobody needs to wait for it.
constexpr const char* kMacroModule = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE script:module PUBLIC "-//OpenOffice.org//DTD OfficeDocument 1.0//EN" "module.dtd">
<script:module xmlns:script="http://openoffice.org/2000/script" script:name="TarnPrint" script:language="StarBasic">
Dim lastDoc As Object
Sub CloseLast()
  On Error Resume Next
  If Not IsNull(lastDoc) Then lastDoc.close(True)
  lastDoc = Nothing
End Sub
Function LoadHidden(src As String, web As Boolean) As Object
  Dim props(3) As New com.sun.star.beans.PropertyValue
  If web Then
    ReDim props(4) As New com.sun.star.beans.PropertyValue
    props(4).Name = &quot;FilterName&quot; : props(4).Value = &quot;HTML (StarWriter)&quot;
  End If
  props(0).Name = &quot;Hidden&quot; : props(0).Value = True
  props(1).Name = &quot;ReadOnly&quot; : props(1).Value = True
  props(2).Name = &quot;MacroExecutionMode&quot; : props(2).Value = 0
  props(3).Name = &quot;UpdateDocMode&quot; : props(3).Value = 0
  LoadHidden = StarDesktop.loadComponentFromURL(src, &quot;_blank&quot;, 0, props())
End Function
Sub ToPdf(src As String, dst As String, web As String)
  Dim doc As Object
  CloseLast()
  On Error GoTo failed
  doc = LoadHidden(src, web = &quot;1&quot;)
  If IsNull(doc) Then Exit Sub
  If doc.supportsService(&quot;com.sun.star.text.WebDocument&quot;) Then
    doc.close(True)
    doc = LoadHidden(src, True)
    If IsNull(doc) Then Exit Sub
  End If
  filter = &quot;writer_pdf_Export&quot;
  If doc.supportsService(&quot;com.sun.star.sheet.SpreadsheetDocument&quot;) Then
    filter = &quot;calc_pdf_Export&quot;
  ElseIf doc.supportsService(&quot;com.sun.star.presentation.PresentationDocument&quot;) Then
    filter = &quot;impress_pdf_Export&quot;
  ElseIf doc.supportsService(&quot;com.sun.star.drawing.DrawingDocument&quot;) Then
    filter = &quot;draw_pdf_Export&quot;
  End If
  Dim export(0) As New com.sun.star.beans.PropertyValue
  export(0).Name = &quot;FilterName&quot; : export(0).Value = filter
  doc.storeToURL(dst, export())
  lastDoc = doc
  Exit Sub
failed:
  On Error Resume Next
  If Not IsNull(doc) Then doc.close(True)
End Sub
Sub CsvToPdf(src As String, dst As String, separator As String, charset As String)
  Dim doc As Object
  On Error GoTo failed
  Dim props(2) As New com.sun.star.beans.PropertyValue
  props(0).Name = &quot;FilterName&quot; : props(0).Value = &quot;Text - txt - csv (StarCalc)&quot;
  props(1).Name = &quot;FilterOptions&quot; : props(1).Value = separator &amp; &quot;,34,&quot; &amp; charset &amp; &quot;,1&quot;
  props(2).Name = &quot;Hidden&quot; : props(2).Value = True
  doc = StarDesktop.loadComponentFromURL(src, &quot;_blank&quot;, 0, props())
  If IsNull(doc) Then Exit Sub
  Dim export(0) As New com.sun.star.beans.PropertyValue
  export(0).Name = &quot;FilterName&quot; : export(0).Value = &quot;calc_pdf_Export&quot;
  doc.storeToURL(dst, export())
failed:
  On Error Resume Next
  If Not IsNull(doc) Then doc.close(True)
End Sub
Sub UseSystemLocale()
  Dim args(0) As New com.sun.star.beans.PropertyValue
  args(0).Name = &quot;nodepath&quot; : args(0).Value = &quot;/org.openoffice.Setup/L10N&quot;
  provider = createUnoService(&quot;com.sun.star.configuration.ConfigurationProvider&quot;)
  settings = provider.createInstanceWithArguments(&quot;com.sun.star.configuration.ConfigurationUpdateAccess&quot;, args())
  settings.ooSetupSystemLocale = &quot;&quot;
  settings.commitChanges()
End Sub
</script:module>
)";

constexpr const char* kLibraries = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE library:libraries PUBLIC "-//OpenOffice.org//DTD OfficeDocument 1.0//EN" "libraries.dtd">
<library:libraries xmlns:library="http://openoffice.org/2000/library" xmlns:xlink="http://www.w3.org/1999/xlink">
 <library:library library:name="Standard" library:link="false"/>
</library:libraries>
)";

constexpr const char* kScriptLibrary = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE library:library PUBLIC "-//OpenOffice.org//DTD OfficeDocument 1.0//EN" "library.dtd">
<library:library xmlns:library="http://openoffice.org/2000/library" library:name="Standard" library:readonly="false" library:passwordprotected="false">
 <library:element library:name="TarnPrint"/>
</library:library>
)";

constexpr const char* kDialogLibrary = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE library:library PUBLIC "-//OpenOffice.org//DTD OfficeDocument 1.0//EN" "library.dtd">
<library:library xmlns:library="http://openoffice.org/2000/library" library:name="Standard" library:readonly="false" library:passwordprotected="false"/>
)";

bool write_text(const fs::path& path, const char* text, std::string* err) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) *err = "can't write " + path.string();
  return static_cast<bool>(out);
}

// The profile's Basic folder holds only the library with the CSV macro.
bool install_macros(const fs::path& profile, std::string* err) {
  const fs::path basic = profile / "user" / "basic";
  std::error_code ec;
  fs::create_directories(basic / "Standard", ec);
  if (ec) {
    *err = "can't create " + (basic / "Standard").string() + ": " + ec.message();
    return false;
  }
  fs::remove(basic / "Standard" / "Module1.xba", ec);
  return write_text(basic / "script.xlc", kLibraries, err) &&
         write_text(basic / "dialog.xlc", kLibraries, err) &&
         write_text(basic / "Standard" / "script.xlb", kScriptLibrary, err) &&
         write_text(basic / "Standard" / "dialog.xlb", kDialogLibrary, err) &&
         write_text(basic / "Standard" / "TarnPrint.xba", kMacroModule, err);
}

// A macro URL is percent-decoded once before its arguments are read, so an encoded quote in a
// file URL would end the argument early: the URL's own escapes are escaped once more.
std::string macro_argument(const std::string& url) {
  std::string escaped;
  for (char c : url) escaped += c == '%' ? std::string("%25") : std::string(1, c);
  return "\"" + escaped + "\"";
}

bool nonempty_file(const fs::path& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

}  // namespace

bool lok_office::start(const fs::path& program_dir, const fs::path& profile, std::string* err) {
  if (!fs::exists(program_dir / "soffice.bin")) {
    *err = "LibreOffice is not installed in " + program_dir.string();
    return false;
  }
  if (!prepare_office_profile(profile, installed_office_version(program_dir), err)) return false;
  office_ = lok::lok_cpp_init(program_dir.c_str(), file_url(profile).c_str());
  if (office_ == nullptr) {
    *err = "LibreOfficeKit could not load the office from " + program_dir.string();
    return false;
  }
  // Written after the start, which fills a new profile from the office's presets; Basic reads
  // its libraries only when a macro first runs.
  return install_macros(profile, err) && use_system_locale(err);
}

bool lok_office::use_system_locale(std::string* err) {
  // LibreOfficeKit pins the locale to en-US at start, and with it US Letter paper for every
  // document that names no page size of its own (text, CSV, most spreadsheets), where soffice
  // follows the system's locale and paper. The macro hands the choice back to the system.
  if (!office_->runMacro("macro:///Standard.TarnPrint.UseSystemLocale()")) {
    *err = "can't hand the office's locale back to the system: " + last_error();
    return false;
  }
  return true;
}

bool lok_office::convert(const fs::path& src, const fs::path& dst, const std::string& format,
                         const std::optional<csv_layout>& csv, std::string* err) {
  while (stall_) ::pause();
  viewed_ = false;
  if (csv) {
    if (format != "pdf") {
      *err = "a CSV file can only be converted to pdf";
      return false;
    }
    return convert_csv(src, dst, *csv, err);
  }
  if (format == "pdf") {
    // A name that says web page saves the load that would find out.
    const std::string ext = ascii_lower(src.extension().string());
    const bool web = ext == ".html" || ext == ".htm";
    const std::string macro = "macro:///Standard.TarnPrint.ToPdf(" + macro_argument(file_url(src)) +
                              "," + macro_argument(file_url(dst)) + "," +
                              macro_argument(web ? "1" : "0") + ")";
    // The macro's only sign of success is the file it writes. When it fails, the view's load
    // below tries once more and, failing too, tells why.
    viewed_ = !(office_->runMacro(macro.c_str()) && nonempty_file(dst));
    if (!viewed_) return true;
  }
  // Batch mode cancels any dialog a load would open instead of waiting for an answer that
  // never comes.
  std::unique_ptr<lok::Document> doc(office_->documentLoad(file_url(src).c_str(), "Batch=true"));
  if (!doc) {
    *err =
        "the office can't read it (damaged, protected by a password, or of a kind it doesn't "
        "know)";
    return false;
  }
  if (!doc->saveAs(file_url(dst).c_str(), format.c_str(), nullptr)) {
    *err = "the office can't save it as " + format + ": " + last_error();
    return false;
  }
  return true;
}

bool lok_office::convert_csv(const fs::path& src, const fs::path& dst, const csv_layout& csv,
                             std::string* err) {
  // The macro's only sign of success is the file it writes; `dst` starts out empty.
  // Arguments of a macro URL arrive only as quoted strings.
  const std::string macro = "macro:///Standard.TarnPrint.CsvToPdf(" +
                            macro_argument(file_url(src)) + "," + macro_argument(file_url(dst)) +
                            "," + macro_argument(std::to_string(csv.separator)) + "," +
                            macro_argument(std::to_string(csv.charset)) + ")";
  if (!office_->runMacro(macro.c_str()) || !nonempty_file(dst)) {
    *err = "the office can't read it as CSV: " + last_error();
    return false;
  }
  return true;
}

void lok_office::close_document() { office_->runMacro("macro:///Standard.TarnPrint.CloseLast()"); }

std::string lok_office::last_error() {
  char* text = office_->getError();
  std::string result = text != nullptr && text[0] != '\0' ? text : "no reason given";
  if (text != nullptr) office_->freeError(text);
  return result;
}

}  // namespace tarn
