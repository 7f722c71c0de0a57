// Lightens and warms the whole picture: whitening, then redden, then pinking,
// each on the previous result. The face data is set and not read.
varying vec2 textureCoordinate;

uniform sampler2D inputImageTexture;
uniform float redden;
uniform float whitening;
uniform float pinking;
uniform vec4 whitening_face_area;
uniform float hasFace;
uniform float premulAlpha;

const vec3 luminanceWeighting = vec3(0.299, 0.587, 0.114);

float luminance(vec3 c)
{
    return dot(c, luminanceWeighting);
}

vec3 getWhitenResult(vec4 inputColor)
{
    vec4 c = vec4(inputColor.rgb, 1.0);
    vec3 color = c.rgb;
    if (whitening != 0.0) {
        vec3 screen = 1.0 - (1.0 - color) * (1.0 - color);
        // Bright pixels lighten more.
        color = clamp(mix(color, screen, whitening * luminance(color)), 0.0, 1.0);
    }
    if (redden != 0.0) {
        vec3 screen = 1.0 - (1.0 - color) * (1.0 - color);
        vec3 redColor = mix(color, screen, 0.2 * redden);
        vec3 t3 = mix(vec3(luminance(redColor)), redColor, 1.0 + redden);
        vec3 t4 = mix(t3.xyy, t3, 0.5);
        float t5 = luminance(t4);
        color = clamp(mix(t3, mix(t4, sqrt(t4), t5), redden * t5), 0.0, 1.0);
    }
    if (pinking != 0.0) {
        vec3 pink;
        pink.r = sqrt(color.r) * 0.41 + 0.59 * color.r;
        pink.g = sqrt(color.g) * 0.568 + 0.432 * color.g;
        pink.b = sqrt(color.b) * 0.7640001 + 0.2359999 * color.b;
        color = clamp(mix(color, pink, pinking * luminance(color)), 0.0, 1.0);
    }
    return color;
}

void Image_Beauty_Whitening()
{
    vec4 inputColor = texture2D(inputImageTexture, textureCoordinate);
    vec3 color = getWhitenResult(inputColor);
    if (premulAlpha == 1.0)
        gl_FragColor = vec4(color * inputColor.a, inputColor.a);
    else
        gl_FragColor = vec4(color, inputColor.a);
}

void main()
{
    Image_Beauty_Whitening();
}
