"""A page on which a face talks: ``python3 -m zorv.web BUNDLE --motion DIR``."""
