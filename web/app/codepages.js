// The code pages to choose from. Others come by a .cpg file beside the table.
const kPages = [
    ['Western', [['CP437', 'DOS, US'], ['CP850', 'DOS'], ['CP1252', 'Windows'], ['CP858', 'DOS with euro'], ['CP860', 'Portuguese'], ['CP861', 'Icelandic'], ['CP863', 'Canadian French'], ['CP865', 'Nordic'], ['ISO-8859-1', 'Latin 1'], ['ISO-8859-15', 'Latin 9'], ['MACINTOSH', '']]],
    ['Cyrillic', [['CP866', 'DOS'], ['CP1251', 'Windows'], ['CP855', 'DOS'], ['KOI8-R', ''], ['ISO-8859-5', ''], ['MAC-CYRILLIC', '']]],
    ['Central European', [['CP852', 'DOS'], ['CP1250', 'Windows'], ['895', 'Kamenický'], ['620', 'Mazovia'], ['ISO-8859-2', ''], ['MAC-CENTRALEUROPE', '']]],
    ['Greek, Turkish, Baltic', [['CP737', 'Greek, DOS'], ['CP869', 'Greek, DOS'], ['CP1253', 'Greek'], ['10006', 'Greek, Mac'], ['CP857', 'Turkish, DOS'], ['CP1254', 'Turkish'], ['CP775', 'Baltic, DOS'], ['CP1257', 'Baltic']]],
    ['Hebrew, Arabic, Thai, Vietnamese', [['CP862', 'Hebrew, DOS'], ['CP1255', 'Hebrew'], ['CP864', 'Arabic, DOS'], ['CP1256', 'Arabic'], ['CP874', 'Thai'], ['CP1258', 'Vietnamese']]],
    ['East Asian', [['CP932', 'Japanese'], ['CP936', 'Chinese, GBK'], ['CP950', 'Chinese, Big5'], ['CP949', 'Korean']]],
    ['Unicode', [['UTF-8', '']]],
];
